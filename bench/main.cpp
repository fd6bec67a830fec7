// The beginning and end of every benchmark program.
//
// A second thread lives as long as the program: in a process of one thread the system library
// leaves the processor's locks out, and no engine that loads this library has only one.
#include "_zothrd.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>

#include "hot_owner.h"

namespace {

class SecondThread {
public:
    SecondThread() : thread([this] { Sleep(); }) {}
    SecondThread(SecondThread const&) = delete;
    SecondThread& operator=(SecondThread const&) = delete;
    ~SecondThread() {
        {
            std::scoped_lock hold(mutex);
            over = true;
        }
        ended.notify_one();
        thread.join();
    }

private:
    void Sleep() {
        std::unique_lock hold(mutex);
        ended.wait(hold, [this] { return over; });
    }

    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    std::thread thread;
};

std::chrono::duration<double> leastTime{0.5};

void ReadLeastTime(int count, char** words) {
    constexpr std::string_view Option = "--benchmark_min_time=";
    for (int i = 1; i < count; ++i) {
        if (!std::string_view(words[i]).starts_with(Option)) continue;
        leastTime = std::chrono::duration<double>(std::strtod(words[i] + Option.size(), nullptr));
    }
}

}  // namespace

std::chrono::duration<double> LeastTime() {
    return leastTime;
}

int main(int count, char** words) {
    ReadLeastTime(count, words);
    benchmark::Initialize(&count, words);
    if (benchmark::ReportUnrecognizedArguments(count, words)) {
        return 2;
    }
    SecondThread const second;
    ___ZoExtendedContext(1);
    benchmark::RunSpecifiedBenchmarks();
    ___ZoExtendedContext(0);
    return 0;
}
