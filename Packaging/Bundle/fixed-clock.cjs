// fixed-clock.cjs: loaded before the packing tool, which writes the time of day into the bundle; with this one, the
// same files give the same bytes. The moment is SOURCE_DATE_EPOCH, as of Unix time.
const moment = Number(process.env.SOURCE_DATE_EPOCH) * 1000;

globalThis.Date = class extends Date {
    constructor(...given) {
        super(...(given.length > 0 ? given : [moment]));
    }

    static now() {
        return moment;
    }
};
