#include "ExactJSON.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tidewell::test {

namespace {

/// Writes out what the reader reports: numbers as they stand in the text, members sorted, none left out.
class ExactSpeller : public nlohmann::json_sax<nlohmann::json> {
public:
    bool null() override { return add("null"); }
    bool boolean(bool value) override { return add(value ? "true" : "false"); }
    // The library reports -0 as a signed zero and 0 as an unsigned one.
    bool number_integer(number_integer_t value) override {
        return add(value == 0 ? "-0" : std::to_string(value));
    }
    bool number_unsigned(number_unsigned_t value) override { return add(std::to_string(value)); }
    bool number_float(number_float_t, const string_t& token) override { return add(token); }
    bool string(string_t& value) override { return add(nlohmann::json(value).dump()); }
    bool binary(binary_t&) override { return false; }
    bool start_array(std::size_t) override { return begin(); }
    bool start_object(std::size_t) override { return begin(); }
    bool key(string_t& value) override {
        open_.back().key = nlohmann::json(value).dump() + ":";
        return true;
    }
    bool end_array() override { return end('[', ']'); }
    bool end_object() override {
        std::ranges::sort(open_.back().parts);
        return end('{', '}');
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

    std::string take() { return std::move(open_.front().parts.front()); }

private:
    struct Container {
        std::string key = {};  // of the member that comes next
        std::vector<std::string> parts = {};
    };

    bool add(const std::string& part) {
        open_.back().parts.push_back(open_.back().key + part);
        return true;
    }
    bool begin() {
        open_.emplace_back();
        return true;
    }
    bool end(char first, char last) {
        std::string text(1, first);
        for (const std::string& part : open_.back().parts) text += (text.size() > 1 ? "," : "") + part;
        open_.pop_back();
        return add(text + last);
    }

    std::vector<Container> open_{1};  // the first holds the value itself
};

}  // namespace

std::string exact(std::string_view text) {
    ExactSpeller speller;
    if (!nlohmann::json::sax_parse(text, &speller))
        throw std::runtime_error("not JSON: " + std::string(text.substr(0, 200)));
    return speller.take();
}

std::vector<std::string> exactLines(std::string_view lines) {
    std::vector<std::string> result;
    while (!lines.empty()) {
        const std::size_t end = lines.find('\n');
        if (end == lines.npos) throw std::runtime_error("a last line without its line feed");
        result.push_back(exact(lines.substr(0, end)));
        lines.remove_prefix(end + 1);
    }
    return result;
}

}  // namespace tidewell::test
