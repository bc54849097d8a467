// RandomJSON.hpp: random values and texts for the property tests, the same ones for the same seed.
//
// The seed is fixed, so that a run in CI repeats; TIDEWELL_TEST_SEED=N explores. A failure prints its seed.
#pragma once

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace tidewell::test {

inline std::uint64_t testSeed() {
    const char* const chosen = std::getenv("TIDEWELL_TEST_SEED");
    return chosen == nullptr ? 20251125 : std::strtoull(chosen, nullptr, 10);
}

class RandomJSON {
public:
    using json = nlohmann::json;

    explicit RandomJSON(std::uint64_t seed) : engine_(seed) {}

    /// 0 to `most`, both included.
    std::size_t upTo(std::size_t most) {
        return std::uniform_int_distribution<std::size_t>(0, most)(engine_);
    }
    bool chance(unsigned percent) { return upTo(99) < percent; }

    json value(int depth = 5) {
        switch (upTo(depth > 0 ? 8 : 6)) {
        case 0: return nullptr;
        case 1: return chance(50);
        case 2: return integer();
        case 3: return real();
        case 4:
        case 5: return string();
        case 6: return static_cast<std::int64_t>(upTo(3)) - 1;  // 0 and 1 matter most
        case 7: {
            json array = json::array();
            for (std::size_t count = upTo(5); count > 0; --count) array.push_back(value(depth - 1));
            return array;
        }
        default: {
            json object = json::object();
            for (std::size_t count = upTo(chance(5) ? 40 : 5); count > 0; --count)
                object[string()] = value(depth - 1);
            return object;
        }
        }
    }

    std::string string() {
        static constexpr const char* pieces[] = {
            "a", "key", "\"", "\\", "/", "\n", "\t", "\x01", "\x1F",     "\x7F",  "é",           "—",
            "↔", "𝄞",   "1",  " ",  "{", "]",  ",",  "true", "12345678", "u0041", "\xEF\xBF\xBD"};
        std::string text;
        for (std::size_t count = upTo(6); count > 0; --count) text += pieces[upTo(std::size(pieces) - 1)];
        if (chance(5)) text += '\0';
        return text;
    }

    /// A JSON text with a little damage, or with unusual but legal blanks and escapes.
    std::string damaged(std::string text) {
        static constexpr const char* pieces[] = {
            "{",    "}",       "[",           "]",       ",",   ":",    "\"",
            "\\",   "0",       "-",           ".",       "e",   "1e5",  "null",
            "true", "\\u00e9", " ",           "\n",      "\r",  "1.0",  "-0",
            "\xC3", "\x80",    "1e400",       "\\ud834", "\\/", "\x01", "9223372036854775808",
            "0.1",  "[[[[[[",  "\xED\xA0\x80"};
        for (std::size_t count = upTo(3); count > 0; --count) {
            const std::size_t at = upTo(text.size());
            switch (upTo(2)) {
            case 0: text.insert(at, pieces[upTo(std::size(pieces) - 1)]); break;
            case 1: text.erase(at, upTo(3)); break;
            default:
                if (at < text.size()) text[at] = static_cast<char>(upTo(255));
            }
        }
        return text;
    }

private:
    std::int64_t integer() {
        const auto bits = static_cast<std::int64_t>(engine_());
        return bits >> upTo(63);
    }
    double real() {
        if (chance(20)) return static_cast<double>(integer());
        const double mantissa = std::uniform_real_distribution<double>(-1, 1)(engine_);
        return std::ldexp(mantissa, static_cast<int>(upTo(chance(20) ? 1000 : 60)) - 30);
    }

    std::mt19937_64 engine_;
};

}  // namespace tidewell::test
