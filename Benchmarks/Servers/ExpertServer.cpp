// ExpertServer.cpp: the server as somebody who knows the fastest packaged parser would write it in an
// afternoon: yyjson, reading in place, written directly to the reply, one thread. It behaves like the real
// program in what SideBySide.cpp asks.
//
//   ExpertServer FILE     FILE holds a tools/list reply, from which the tool table is taken
#include "WithoutJSON.hpp"

#include <yyjson.hpp>

#include <memory>
#include <utility>

namespace {

using namespace tidewell::bench;
using namespace duckdb_yyjson;  // the package keeps its copy in a namespace of its own

struct Free {
    void operator()(yyjson_doc* document) const { yyjson_doc_free(document); }
    void operator()(yyjson_mut_doc* document) const { yyjson_mut_doc_free(document); }
    void operator()(char* text) const { std::free(text); }
};
using Document = std::unique_ptr<yyjson_doc, Free>;
using Builder = std::unique_ptr<yyjson_mut_doc, Free>;

/// Text that the writer allocated.
struct Text {
    std::unique_ptr<char, Free> bytes;
    std::size_t size = 0;
    std::string_view view() const { return {bytes.get(), size}; }
};

Text checked(char* bytes, std::size_t size) {
    if (bytes == nullptr) throw std::runtime_error("not writable as JSON");
    return {std::unique_ptr<char, Free>(bytes), size};
}

Text write(const Builder& document, yyjson_write_flag flags = YYJSON_WRITE_NOFLAG) {
    std::size_t size = 0;
    char* const bytes = yyjson_mut_write(document.get(), flags, &size);
    return checked(bytes, size);
}

Text write(yyjson_val* value) {
    std::size_t size = 0;
    char* const bytes = yyjson_val_write(value, YYJSON_WRITE_NOFLAG, &size);
    return checked(bytes, size);
}

/// Reads in place: the document refers to `text`.
Document read(std::string& text) {
    const std::size_t size = text.size();
    text.append(YYJSON_PADDING_SIZE, '\0');
    yyjson_read_err error;
    Document document(yyjson_read_opts(text.data(), size, YYJSON_READ_INSITU, nullptr, &error));
    if (document == nullptr) throw std::runtime_error(error.msg);
    return document;
}

/// Of several members with the same name the last counts; yyjson_obj_get() gives the first.
yyjson_val* member(yyjson_val* object, std::string_view name) {
    yyjson_val* found = nullptr;
    yyjson_val* key = nullptr;
    yyjson_val* value = nullptr;
    std::size_t at = 0;
    std::size_t count = 0;
    yyjson_obj_foreach(object, at, count, key, value) {
        if (yyjson_equals_strn(key, name.data(), name.size())) found = value;
    }
    return found;
}

std::string_view textOf(yyjson_val* value) {
    return yyjson_is_str(value) ? std::string_view(yyjson_get_str(value), yyjson_get_len(value)) : "";
}

/// A copy in which the numbers 1 and 0 are booleans.
yyjson_mut_val* argumentsFrom(yyjson_mut_doc* document, yyjson_val* value) {
    std::size_t at = 0;
    std::size_t count = 0;
    yyjson_val* key = nullptr;
    yyjson_val* element = nullptr;
    if (yyjson_is_num(value) && (yyjson_get_num(value) == 1 || yyjson_get_num(value) == 0))
        return yyjson_mut_bool(document, yyjson_get_num(value) == 1);
    if (yyjson_is_arr(value)) {
        yyjson_mut_val* const array = yyjson_mut_arr(document);
        yyjson_arr_foreach(value, at, count, element) {
            yyjson_mut_arr_append(array, argumentsFrom(document, element));
        }
        return array;
    }
    if (yyjson_is_obj(value)) {
        yyjson_mut_val* const object = yyjson_mut_obj(document);
        yyjson_obj_foreach(value, at, count, key, element) {
            yyjson_mut_obj_put(object, yyjson_val_mut_copy(document, key), argumentsFrom(document, element));
        }
        return object;
    }
    return yyjson_val_mut_copy(document, value);
}

Text envelope(yyjson_val* params) {
    const Builder document(yyjson_mut_doc_new(nullptr));
    yyjson_mut_val* const root = yyjson_mut_obj(document.get());
    yyjson_mut_doc_set_root(document.get(), root);
    const std::string_view tool = textOf(member(params, "name"));
    yyjson_mut_obj_add_strn(document.get(), root, "tool", tool.data(), tool.size());
    yyjson_val* const arguments = member(params, "arguments");
    yyjson_mut_obj_add_val(document.get(), root, "args",
                           arguments == nullptr ? yyjson_mut_obj(document.get())
                                                : argumentsFrom(document.get(), arguments));
    yyjson_mut_obj_add_strcpy(document.get(), root, "requestId", randomId().c_str());
    return write(document, YYJSON_WRITE_NEWLINE_AT_END);
}

Text errorText(const char* code, const char* message) {
    const Builder document(yyjson_mut_doc_new(nullptr));
    yyjson_mut_val* const root = yyjson_mut_obj(document.get());
    yyjson_mut_doc_set_root(document.get(), root);
    yyjson_mut_val* const error = yyjson_mut_obj_add_obj(document.get(), root, "error");
    yyjson_mut_obj_add_str(document.get(), error, "code", code);
    yyjson_mut_obj_add_str(document.get(), error, "message", message);
    return write(document);
}

/// The text for the client, and whether it is an error's.
std::pair<Text, bool> callTool(yyjson_val* params) {
    try {
        std::string received = exchange(envelope(params).view());
        const Document reply = read(received);
        yyjson_val* const root = yyjson_doc_get_root(reply.get());
        if (yyjson_get_bool(member(root, "ok"))) return {write(member(root, "result")), false};
        return {errorText(std::string(textOf(member(member(root, "error"), "code"))).c_str(),
                          std::string(textOf(member(member(root, "error"), "message"))).c_str()),
                true};
    } catch (const std::exception& error) {
        return {errorText("error", error.what()), true};
    }
}

void addInitializeResult(yyjson_mut_doc* document, yyjson_mut_val* result, yyjson_val* params) {
    static const std::string version = readVersion();
    const std::string_view protocol = textOf(member(params, "protocolVersion"));
    yyjson_mut_obj_add_strn(document, result, "protocolVersion", protocol.data(), protocol.size());
    yyjson_mut_val* const capabilities = yyjson_mut_obj_add_obj(document, result, "capabilities");
    for (const char* const name : {"tools", "resources", "prompts"})
        yyjson_mut_obj_add_obj(document, capabilities, name);
    yyjson_mut_val* const info = yyjson_mut_obj_add_obj(document, result, "serverInfo");
    yyjson_mut_obj_add_str(document, info, "name", "Tidewell");
    yyjson_mut_obj_add_str(document, info, "version", version.c_str());
    yyjson_mut_obj_add_str(document, result, "instructions", instructions);
}

void handleLine(std::string line, std::string_view tools) {
    const Document request = read(line);
    yyjson_val* const root = yyjson_doc_get_root(request.get());
    const std::string_view method = textOf(member(root, "method"));
    yyjson_val* const params = member(root, "params");

    const Builder reply(yyjson_mut_doc_new(nullptr));
    yyjson_mut_doc* const document = reply.get();
    yyjson_mut_val* const message = yyjson_mut_obj(document);
    yyjson_mut_doc_set_root(document, message);
    yyjson_mut_obj_add_str(document, message, "jsonrpc", "2.0");
    yyjson_mut_obj_add_val(document, message, "id", yyjson_val_mut_copy(document, member(root, "id")));
    Text text;  // lives until the reply is written
    if (method == "initialize") {
        addInitializeResult(document, yyjson_mut_obj_add_obj(document, message, "result"), params);
    } else if (method == "ping") {
        yyjson_mut_obj_add_obj(document, message, "result");
    } else if (method == "tools/list") {
        yyjson_mut_val* const result = yyjson_mut_obj_add_obj(document, message, "result");
        yyjson_mut_obj_add_val(document, result, "tools",
                               yyjson_mut_rawn(document, tools.data(), tools.size()));
    } else if (method == "tools/call") {
        bool isError = false;
        std::tie(text, isError) = callTool(params);
        yyjson_mut_val* const result = yyjson_mut_obj_add_obj(document, message, "result");
        yyjson_mut_val* const item =
            yyjson_mut_arr_add_obj(document, yyjson_mut_obj_add_arr(document, result, "content"));
        yyjson_mut_obj_add_str(document, item, "type", "text");
        yyjson_mut_obj_add_strn(document, item, "text", text.bytes.get(), text.size);
        yyjson_mut_obj_add_bool(document, result, "isError", isError);
    } else {
        yyjson_mut_val* const error = yyjson_mut_obj_add_obj(document, message, "error");
        yyjson_mut_obj_add_int(document, error, "code", -32601);
        yyjson_mut_obj_add_strcpy(document, error, "message",
                                  ("Method not found: " + std::string(method)).c_str());
    }
    writeAll(STDOUT_FILENO, write(reply, YYJSON_WRITE_NEWLINE_AT_END).view());
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount != 2) return 2;
    std::string list = readFile(arguments[1]);
    const Document document = read(list);
    const Text tools = write(member(member(yyjson_doc_get_root(document.get()), "result"), "tools"));
    serveLines([&](std::string line) { handleLine(std::move(line), tools.view()); });
}
