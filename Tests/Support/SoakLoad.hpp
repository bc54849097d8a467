// SoakLoad.hpp: random requests of every kind, each with the reply that it must get.
#pragma once

#include "RandomJSON.hpp"
#include "SoakHost.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tidewell::test {

/// One line to the server, and the replies of which one must come; if there are none, nothing may come. JSON text
/// inside a reply is given as the value that it must encode: see opened() in Judge.hpp.
struct Request {
    std::string line;
    std::vector<nlohmann::json> replies = {};
};

class SoakLoad {
public:
    /// Keeps references to both.
    SoakLoad(RandomJSON& random, SoakHost& host);

    /// The next request; requests must be sent in this order.
    Request next();
    /// A request that is always answered and needs no host app.
    Request closingPing();

private:
    struct Row;
    static const Row rows[];
    using json = nlohmann::json;

    Request message(const json& method, const std::optional<json>& params, const std::vector<json>& outcomes);
    std::optional<json> addId(json& message);

    Request ping();
    Request shutdown();
    Request tools();
    Request resources();
    Request templates();
    Request prompts();
    Request initialize();
    Request initialized();
    Request unknownMethod();
    Request noMethod();
    Request broken();
    Request nothing();
    Request toolCall();
    Request toolCallWithoutName();
    Request resourceRead();
    Request resourceReadWithoutURI();
    Request prompt();
    Request promptWithoutName();

    std::optional<json> anyParams();
    std::optional<json> paramsWithout(const char* key);
    json anyOf(const json& array) { return array[random_.upTo(array.size() - 1)]; }

    RandomJSON& random_;
    SoakHost& host_;
    int lastId_ = 0;
    // The published entries, as they must be.
    json tools_;
    json resources_;
    json prompts_;
};

}  // namespace tidewell::test
