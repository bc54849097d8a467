// inspector.mjs: opens the Inspector's window, connects, calls one tool and takes the picture.
//
//   node inspector.mjs URL BROWSER PICTURE      with playwright-core in the folder NODE_PACKAGES
//
// Fails when something on the way does not appear, and when the picture would show where it was made.

import { writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { homedir, userInfo } from 'node:os';

const [url, executablePath, picture] = process.argv.slice(2);
const { chromium } = createRequire(`${process.env.NODE_PACKAGES}/`)('playwright-core');

// Chromium's own sandbox refuses to run as root, as in a container.
const browser = await chromium.launch({ executablePath, chromiumSandbox: process.getuid() !== 0 });
try {
    // One time zone, language and theme, and no moving parts: the picture should not depend on the machine.
    const page = await browser.newPage({
        viewport: { width: 1280, height: 720 },
        colorScheme: 'light',
        locale: 'en-GB',
        timezoneId: 'UTC',
        reducedMotion: 'reduce',
    });
    page.setDefaultTimeout(30_000);
    await page.goto(url);

    await page.getByRole('switch', { name: /^Connect or disconnect/ }).click({ force: true });
    await page.getByText('Connected', { exact: true }).waitFor();
    await page.getByRole('button', { name: 'Close monitoring sidebar' }).click();
    await page.getByRole('radiogroup').getByText('Tools', { exact: true }).click();
    await page.getByRole('heading', { name: 'Tools (60)' }).waitFor();
    await page.getByRole('button', { name: 'list_local_repositories', exact: true }).click();
    await page.getByRole('button', { name: 'Execute Tool' }).click();
    await page.getByText('git@example.org:ada/garden.git').first().waitFor();

    // The list from its top, no highlight under the pointer, no blinking cursor; what slides or fades comes to rest.
    await page.getByRole('button', { name: 'list_accounts' }).scrollIntoViewIfNeeded();
    await page.mouse.move(0, 0);
    await page.waitForTimeout(2500);

    const shown = await page.locator('body').innerText();
    for (const word of [homedir(), process.cwd(), userInfo().username]) {
        const at = shown.indexOf(word);
        if (at >= 0) throw new Error(`the picture would show ${JSON.stringify(shown.slice(at, at + 80))}`);
    }
    writeFileSync(picture, await page.screenshot({ style: '.ace_cursor { visibility: hidden }' }));
} finally {
    await browser.close();
}
