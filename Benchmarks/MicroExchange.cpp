// MicroExchange.cpp: the hand-off to the worker, and one exchange with a host app on a thread of this
// process.
#include "CannedReply.hpp"
#include "SocketClient.hpp"
#include "Worker.hpp"

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace {

using namespace tidewell;

/// Answers every connection with the same bytes, until it is destroyed.
class AnsweringThread {
public:
    explicit AnsweringThread(std::string reply) : reply_(std::move(reply)) {
        if (::mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("mkdtemp");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0) {
            throw std::runtime_error("cannot listen at " + path());
        }
        thread_ = std::thread(&AnsweringThread::serve, this);
    }
    AnsweringThread(const AnsweringThread&) = delete;
    AnsweringThread& operator=(const AnsweringThread&) = delete;
    ~AnsweringThread() {
        static_cast<void>(SocketClient(path()).forward(lastTool, nullptr));
        thread_.join();
        ::close(listener_);
        ::unlink(path().c_str());
        ::rmdir(folder_.c_str());
    }

    std::string path() const { return folder_ + "/host.sock"; }

private:
    static constexpr std::string_view lastTool = "the-last-call";

    void serve() const {
        for (bool last = false; !last;) {
            const Descriptor connection(::accept(listener_, nullptr, nullptr));
            std::array<char, 4096> request{};  // small, and sent in one piece
            const ssize_t count = ::read(connection.get(), request.data(), request.size());
            const std::string_view envelope(request.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
            last = envelope.find(lastTool) != std::string_view::npos;
            for (std::string_view rest = reply_; !rest.empty();) {
                const ssize_t written = ::write(connection.get(), rest.data(), rest.size());
                if (written <= 0) break;
                rest.remove_prefix(static_cast<std::size_t>(written));
            }
        }
    }

    const std::string reply_;
    std::string folder_ = "/tmp/tidewell-micro-XXXXXX";
    const int listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    std::thread thread_;
};

/// A job that does nothing: what remains is two changes of thread.
void handOff(benchmark::State& state) {
    Worker worker;
    std::int64_t done = 0;
    for ([[maybe_unused]] const auto _ : state) worker.run([&] { ++done; });
    if (done < state.iterations()) state.SkipWithError("jobs were lost");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(handOff)->Name("handOff")->UseRealTime();

void exchange(benchmark::State& state) {
    const std::string reply = bench::cannedReply(static_cast<std::size_t>(state.range(0)));
    const AnsweringThread host(reply);
    const SocketClient client(host.path());
    const JSONValue arguments = JSONValue::object({{"repoId", "local-1"}, {"limit", 20}});
    for ([[maybe_unused]] const auto _ : state) {
        const JSONValue answer = client.forward("get_repository", arguments);
        if (answer.find("ok") == nullptr) return state.SkipWithError("no reply");
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(reply.size()));
}
BENCHMARK(exchange)
    ->Name("exchange")
    ->ArgName("reply")
    ->Arg(bench::smallSize)
    ->Arg(64 << 10)
    ->Arg(bench::megabyte)
    ->UseRealTime();

}  // namespace
