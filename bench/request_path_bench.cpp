// What one request costs, compared with the least that the contract demands: the same write and
// hand-over between two threads, the same flushed lines, and as many reads of the level property.
// No board is powered: the calls go straight to the C library.
#include <benchmark/benchmark.h>
#include <cutils/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ext/stdio_filebuf.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "common/log.h"
#include "config/config_info.h"
#include "mculink/frame.h"
#include "mculink/request.h"
#include "mculink/uart.h"
#include "service/quil_service_manager.h"
#include "testing/build.h"

// Replaces the C library's malloc, to count heap blocks.
extern "C" void* __libc_malloc(size_t size);
static std::atomic<uint64_t> gHeapBlocks{0};
extern "C" void* malloc(size_t size) {
    gHeapBlocks.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

using quil::hardware::quilservicemanager::implementation::QuilServiceManager;
using quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

using Request = android::hardware::hidl_vec<uint8_t>;

constexpr char kLibrary[] = QUIL_LIB_DIR "/quil.hardware.quilservicemanager@1.0-impl.so";

// Shows whether an answer was accepted.
class OpenService : public QuilServiceManager {
  public:
    using QuilServiceManager::mDataReady;
};

// A pipe as the MCU's link, and a thread as the MCU: it reports the total number of bytes read.
class Link {
  public:
    explicit Link(std::function<void(size_t)> heard) {
        if (pipe(mEnds) != 0) abort();
        mThread = std::thread([this, heard = std::move(heard)] {
            std::vector<uint8_t> frame(quil::mculink::kFrameMax);
            size_t bytes = 0;
            ssize_t count = 0;
            while ((count = read(mEnds[0], frame.data(), frame.size())) > 0) {
                heard(bytes += static_cast<size_t>(count));
            }
        });
    }
    ~Link() {
        close(mEnds[1]);
        mThread.join();
        close(mEnds[0]);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    int fd() const { return mEnds[1]; }

  private:
    int mEnds[2] = {-1, -1};
    std::thread mThread;
};

Request requestWith(size_t body) {
    Request request;
    request.resize(8 + body);
    request[0] = 1;
    return request;
}

// A get with a body of `range` bytes, answered at once.
void requestPath(benchmark::State& state) {
    const android::sp<OpenService> service = new OpenService;
    const android::hardware::hidl_vec<uint8_t> answer = {1, 2, 3, 4};
    const auto body = static_cast<size_t>(state.range(0));
    std::atomic<size_t> served{0};
    const Link link([&](size_t bytes) {
        // By contract an answer that arrives before the wait begins is dropped: repeat it until as
        // many requests have returned as were read.
        const size_t frames =
            bytes / (quil::mculink::kPacketHeaderSize + body + quil::mculink::kChecksumSize);
        while (served < frames) {
            service->wakeUp(answer);
            while (served < frames && service->mDataReady) std::this_thread::yield();
        }
    });
    config_info_t info = {};
    info.mcu_fd = link.fd();
    config_info = &info;
    const Request request = requestWith(body);
    const uint64_t before = gHeapBlocks;
    for (auto _ : state) {
        service->get(request, [&](const auto& bytes) {
            benchmark::DoNotOptimize(bytes.size());
            ++served;
        });
    }
    state.counters["heap_blocks"] = benchmark::Counter(static_cast<double>(gHeapBlocks - before),
                                                       benchmark::Counter::kAvgIterations);
    config_info = nullptr;
}

// The number of messages of such a request, each with a read of the level: those logged at level D.
size_t messagesOf(size_t body) {
    quil::board::Board board;
    board.properties().set(quil::common::kLogLevelProperty, "D");
    const android::sp<OpenService> service = new OpenService;
    config_info_t info = {};
    info.mcu_fd = sdk_uart_init("/dev/ttyS3", 115200);
    config_info = &info;
    board.clearLog();
    std::thread reader([&] {
        board.runFor(std::chrono::seconds(2));
        service->wakeUp({1, 2, 3, 4});
    });
    service->get(requestWith(body), [](const auto& /*bytes*/) {});
    reader.join();
    close(info.mcu_fd);
    config_info = nullptr;
    return board.log().size();
}

void printLines() {
    printf("n_frame_header_len is %d\nn_request_header_len is %d\n", 10, 12);
    printf("n_request_body_len is %d\nn_packet_header_length is %d\n", 8, 30);
    fflush(stdout);
}

void readLevels(size_t count) {
    char level[PROPERTY_VALUE_MAX];
    for (size_t i = 0; i < count; ++i) {
        property_get(quil::common::kLogLevelProperty, level, quil::common::kDefaultLogLevel);
        benchmark::DoNotOptimize(level[0]);
    }
}

// The lower bound: a write of the same frame and one hand-over by condition variable; with the
// lines and reads of the level of a request, what the contract demands.
template <bool kWithLinesAndLevels>
void loop(benchmark::State& state) {
    const auto body = static_cast<size_t>(state.range(0));
    const size_t messages = kWithLinesAndLevels ? messagesOf(body) : 0;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool ready = false;
    const Link link([&](size_t) {
        pthread_mutex_lock(&mutex);
        ready = true;
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    });
    const std::vector<uint8_t> frame(32 + body);
    for (auto _ : state) {
        if (kWithLinesAndLevels) {
            readLevels(messages);
            printLines();
        }
        if (write(link.fd(), frame.data(), frame.size()) < 0) abort();
        timespec deadline = {};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 5;
        pthread_mutex_lock(&mutex);
        // NOLINTNEXTLINE(bugprone-infinite-loop): the link's thread sets `ready`
        while (!ready) pthread_cond_timedwait(&cond, &mutex, &deadline);
        ready = false;
        pthread_mutex_unlock(&mutex);
    }
    state.counters["property_reads"] = static_cast<double>(messages);
}
void bareLoop(benchmark::State& state) { loop<false>(state); }
void contractsLeast(benchmark::State& state) { loop<true>(state); }

// One message below the log level: only the level property is read.
void logGateOff(benchmark::State& state) {
    const uint8_t byte = 0;
    for (auto _ : state) printsend(&byte, 1);
}

// Loads a copy of the library's file: the library itself is already loaded.
void loadToFactory(benchmark::State& state) {
    const quil::board::TemporaryDirectory scratch;
    const std::filesystem::path copy = scratch.path() / "library.so";
    std::filesystem::copy_file(kLibrary, copy);
    for (auto _ : state) {
        void* library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
        auto* factory = reinterpret_cast<IQuilServiceManager* (*)(const char*)>(
            library != nullptr ? dlsym(library, "HIDL_FETCH_IQuilServiceManager") : nullptr);
        if (factory == nullptr) {
            state.SkipWithError("the library does not load");
            break;
        }
        android::sp<IQuilServiceManager> service = factory("default");
        benchmark::DoNotOptimize(service.get());
        service.clear();
        dlclose(library);
    }
}

BENCHMARK(requestPath)->Arg(1)->Arg(4112)->UseRealTime();
BENCHMARK(contractsLeast)->Arg(1)->Arg(4112)->UseRealTime();
BENCHMARK(bareLoop)->Arg(1)->Arg(4112)->UseRealTime();
BENCHMARK(logGateOff);
BENCHMARK(loadToFactory);

}  // namespace

int main(int argc, char** argv) {
    // The library prints four lines a request to standard output. They are discarded; the report
    // goes to the original standard output.
    __gnu_cxx::stdio_filebuf<char> buffer(dup(STDOUT_FILENO), std::ios::out);
    std::ostream report(&buffer);
    if (freopen("/dev/null", "w", stdout) == nullptr) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::ConsoleReporter console(benchmark::ConsoleReporter::OO_Tabular);
    console.SetOutputStream(&report);
    console.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&console);
    return 0;
}
