// Soak.cpp: the real program under a long random load, every reply compared with what it has to be.
//
//   Soak [REQUESTS] [SEED]     a million requests and always the same ones, unless told otherwise
//
// Requests go out in batches of random size, in front of a host app that hangs up, cuts its replies short, sends
// nonsense and disappears for a while (SoakHost). The right reply to each is known before it is sent (SoakLoad).
// A batch ends with a ping, whose reply proves that nothing is still to come; the system resources that the server
// holds are counted then. Exit status 0 only if all was right. Linux only: the figures come from /proc.
#include "Support/Judge.hpp"
#include "Support/Process.hpp"
#include "Support/SoakHost.hpp"
#include "Support/SoakLoad.hpp"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using nlohmann::json;

// How far the lowest memory figure of the last tenth may be above that of the second. The lowest, because what a
// batch leaves behind depends on its last messages. In a run of a million requests it rose by 60 KiB; a leak of
// eight bytes each would add 6 MB over the eight tenths between.
constexpr std::size_t memoryToleranceKiB = 512;

/// The system resources that the server holds.
struct Figures {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    std::size_t residentKiB = 0;
};

Figures figuresOf(pid_t process) {
    const std::filesystem::path folder = "/proc/" + std::to_string(process);
    Figures figures;
    const std::filesystem::directory_iterator descriptors(folder / "fd");
    figures.descriptors = static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
    std::ifstream status(folder / "status");
    for (std::string word; status >> word;) {
        if (word == "Threads:") status >> figures.threads;
        if (word == "VmRSS:") status >> figures.residentKiB;
    }
    return figures;
}

void require(bool condition, const std::string& otherwise) {
    if (!condition) throw std::runtime_error(otherwise);
}

class Soak {
public:
    Soak(std::size_t requests, std::uint64_t seed) : wanted_(requests), random_(seed) {}

    /// Throws an exception that says what was wrong.
    void run() {
        std::size_t leastAtFirst = 0;
        for (std::size_t tenth = 1; tenth <= 10; ++tenth) {
            leastResidentKiB_ = SIZE_MAX;
            while (sent_ < wanted_ * tenth / 10) runBatch(wanted_ * tenth / 10 - sent_);
            report(tenth);
            if (tenth == 1) early_ = last_;
            if (tenth == 2) leastAtFirst = leastResidentKiB_;
        }
        std::printf("%-12s descriptors %zu, threads %zu, resident %zu KiB\n", "at 10 %:", early_.descriptors,
                    early_.threads, early_.residentKiB);
        std::printf("%-12s descriptors %zu, threads %zu, resident %zu KiB\n",
                    "at the end:", last_.descriptors, last_.threads, last_.residentKiB);
        // A sanitizer's own memory grows with every allocation that it remembers.
        require(TIDEWELL_SANITIZED || leastResidentKiB_ <= leastAtFirst + memoryToleranceKiB,
                "memory grew from " + std::to_string(leastAtFirst) + " KiB to " +
                    std::to_string(leastResidentKiB_) + " KiB");
        finish();
    }

private:
    using Clock = std::chrono::steady_clock;

    void runBatch(std::size_t most) {
        host_.mayComeBack();
        constexpr std::size_t sizes[] = {0, 20, 1000};
        const std::size_t size = std::min(most, 1 + random_.upTo(sizes[random_.upTo(2)]));
        std::vector<Request> batch;
        std::string bytes;
        while (batch.size() < size) {
            batch.push_back(batch.size() + 1 < size ? load_.next() : load_.closingPing());
            bytes += batch.back().line + '\n';
        }
        sent_ += size;

        // On a thread of its own, so that requests and replies cannot wait for each other.
        std::thread writer([&] { server_.write(bytes); });
        const std::string wrong = firstWrongReply(batch);
        if (!wrong.empty()) ::kill(server_.id(), SIGKILL);
        writer.join();
        require(wrong.empty(), wrong);
        require(host_.complaint().empty(), host_.complaint());
        require(host_.connections() == host_.expectedConnections(),
                "a request did not reach the host app exactly once");
        count();
    }

    std::string firstWrongReply(const std::vector<Request>& batch) {
        for (const Request& request : batch) {
            if (request.replies.empty()) continue;
            const auto line = server_.readLine();
            const json reply = line ? opened(judge(*line, Text::written).value_or(json())) : json();
            ++checked_;
            if (std::ranges::find(request.replies, reply) != request.replies.end()) continue;
            return "the request  " + request.line.substr(0, 500) + "\nwas answered " +
                   line.value_or("nothing, and the server " + serverState()).substr(0, 500) +
                   "\nand not      " + request.replies.front().dump().substr(0, 500);
        }
        return {};
    }

    std::string serverState() {
        if (server_.isRunning()) return "is still there";
        return "ended with status " + std::to_string(server_.wait()) + " " + server_.errors();
    }

    void count() {
        last_ = figuresOf(server_.id());
        leastResidentKiB_ = std::min(leastResidentKiB_, last_.residentKiB);
        const bool isConstant = last_.descriptors == early_.descriptors && last_.threads == early_.threads;
        require(early_.threads == 0 || isConstant,
                std::to_string(last_.descriptors) + " descriptors and " + std::to_string(last_.threads) +
                    " threads, before: " + std::to_string(early_.descriptors) + " and " +
                    std::to_string(early_.threads));
    }

    void report(std::size_t tenth) const {
        const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        std::printf("%3zu %%  %zu requests, %zu replies checked, %d connections, %.0f requests/s\n",
                    tenth * 10, sent_, checked_, host_.connections(), static_cast<double>(sent_) / seconds);
        static_cast<void>(std::fflush(stdout));
    }

    void finish() {
        if (random_.chance(50)) {
            server_.closeInput();
        } else {
            server_.writeLine("{\"id\":1,\"method\":\"exit\"}");
        }
        require(server_.readAll().empty(), "something came after the last reply");
        require(server_.wait() == 0, "the exit status is not 0");
        require(server_.errors().empty(), "on standard error: " + server_.errors());
    }

    static Process::Options optionsFor(const std::string& socketPath) {
        Process::Options options;
        options.environment = environmentFor(socketPath);
        return options;
    }

    std::size_t wanted_;
    std::size_t sent_ = 0;
    std::size_t checked_ = 0;
    Clock::time_point start_ = Clock::now();
    RandomJSON random_;
    SoakHost host_{random_};
    SoakLoad load_{random_, host_};
    Process server_{optionsFor(host_.socketPath())};
    Figures early_;  // at a tenth of the way
    Figures last_;
    std::size_t leastResidentKiB_ = SIZE_MAX;  // in this tenth
};

}  // namespace
}  // namespace tidewell::test

int main(int argumentCount, char* arguments[]) {
    const std::size_t requests = argumentCount > 1 ? std::strtoull(arguments[1], nullptr, 10) : 1'000'000;
    const std::uint64_t seed =
        argumentCount > 2 ? std::strtoull(arguments[2], nullptr, 10) : tidewell::test::testSeed();
    if (requests < 1000 || argumentCount > 3) {
        static_cast<void>(std::fputs("usage: Soak [REQUESTS] [SEED], with 1000 requests or more\n", stderr));
        return 2;
    }
    std::printf("%zu requests, seed %llu\n", requests, static_cast<unsigned long long>(seed));
    try {
        tidewell::test::Soak(requests, seed).run();
    } catch (const std::exception& error) {
        std::printf("WRONG: %s\n", error.what());
        return 1;
    }
    std::printf("all of it right\n");
    return 0;
}
