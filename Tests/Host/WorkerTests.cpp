#include "Host/Worker.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace tidewell {
namespace {

TEST(Worker, AJobRunsOnAnotherThreadAndIsOverWhenRunReturns) {
    Worker worker;
    std::thread::id ranOn;
    worker.run([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_NE(ranOn, std::thread::id());
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(Worker, AllJobsRunOnTheSameThread) {
    Worker worker;
    std::thread::id first;
    worker.run([&] { first = std::this_thread::get_id(); });
    for (int round = 0; round < 1000; ++round) {
        std::thread::id ranOn;
        worker.run([&] { ranOn = std::this_thread::get_id(); });
        ASSERT_EQ(ranOn, first);
    }
}

TEST(Worker, WhatAJobThrowsIsThrownToTheCallerAndTheNextJobRuns) {
    Worker worker;
    EXPECT_THROW(worker.run([] { throw std::runtime_error("broken"); }), std::runtime_error);
    bool ran = false;
    worker.run([&] { ran = true; });
    EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace tidewell
