"""What the checks of pages share: they read tables, count what was tried, and end with what was wrong."""
import signal, sys

PATIENCE_SECONDS = 20  # a reply comes at once; a busy machine under a sanitizer takes longer
signal.alarm(110)  # whatever hangs, this ends
wrong = []
done = 0


def expect(true, what):
    global done
    done += 1
    if not true:
        wrong.append(what)


def rows(page, heading):
    """The cells of the table whose first line begins with `heading`."""
    table = page.split("\n" + heading, 1)[1].split("\n\n", 1)[0].splitlines()[2:]
    expect(table, f"no rows below {heading}")
    return [[cell.strip() for cell in line[1:].rstrip().rstrip("|").split(" |")] for line in table]


def finish(name):
    print(f"{done} statements of {name} tried, {len(wrong)} wrong")
    for one in wrong:
        print("  " + one)
    sys.exit(1 if wrong else 0)
