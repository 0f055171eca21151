// Draining the background queue: 1,000 queued delivery-metric tasks sent through a run of the
// queue (inventory read, task file read, HTTP request, task deletion, one task at a time)
// against a tracking service on 127.0.0.1, and as a baseline the same 1,000 requests (same
// method, URL, headers and bodies) sent one after another with libcurl alone on one reused
// handle. Both go to the same server in the same process. Each iteration refills the queue
// first, untimed.
//
// Two more benchmarks split the drain's time between its parts: the storage steps that a run
// takes for each task (read the inventory, read the task, delete it) without any request, and
// the same 1,000 requests through the library's HTTP client without the queue, each started
// from the completion of the one before (so without the thread switches of a run, whose loop
// waits on its own thread for each answer).
//
// A last one measures the least that any run could do per task here, as a floor for the
// drain's ratio: the same requests through libcurl on a thread of their own while the sending
// thread waits for each answer (a run's loop waits on its thread; a URL session answers on
// another), with the two steps that each request needs whatever the design (the task file read
// and decoded, the pause date read from the global defaults before the request), the inventory
// replaced without its entry (the fastest whole-file replacement this file system has, a
// scratch file exchanged in one rename) and the task file removed. No locks, no logging, no
// inventory decoding or encoding: the inventory is only checked with a stat, its bytes kept in
// memory.
//
// Reported per benchmark: tasks_per_second; after the run, the ratio of the drain's time to
// libcurl's, the split and the floor's ratio to libcurl (medians of the iterations), and the
// process's peak resident set size.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Common/DIGraph.hpp"
#include "Common/http/HttpRequestParams.hpp"
#include "Common/storage/GlobalDataStore.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/UserAgentUtil.hpp"
#include "platform/Env.hpp"
#include "platform/linux/LinuxEnv.hpp"

namespace {

namespace fs = std::filesystem;
using vontu::platform::Bytes;
using vontu::platform::Env;

constexpr int taskCount = 1000;
const std::string siteId = "drainbench";
const std::string apiKey = "benchkey";

// The tracking service: answers every request with 200 "{}".
class LoopbackTrackingServer {
public:
    LoopbackTrackingServer() {
        // Without it, the response's header and body writes meet the client's delayed
        // acknowledgement, and every request waits some 40 ms whatever the client does.
        server_.set_tcp_nodelay(true);
        server_.Post(".*", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("{}", "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~LoopbackTrackingServer() {
        server_.stop();
        thread_.join();
    }
    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

struct Bench {
    LoopbackTrackingServer server;
    std::unique_ptr<tern::DIGraph> graph;
    std::vector<tern::QueueTask> tasks;
    std::vector<tern::QueueTaskMetadata> inventory;
    // Seconds of each iteration of each benchmark.
    std::vector<double> queueSeconds;
    std::vector<double> curlSeconds;
    std::vector<double> storageSeconds;
    std::vector<double> clientSeconds;
    std::vector<double> floorSeconds;
};
Bench* bench = nullptr;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string storageId(int index) {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", index);
    return id;
}

void makeTasks(Bench& state) {
    auto adapter = state.graph->jsonAdapter();
    for (int i = 0; i < taskCount; ++i) {
        auto body = tern::TrackDeliveryEventRequestBody::inApp(
            "delivery-" + std::to_string(i), tern::InAppMetric::opened, {1700000000.0 + i});
        tern::QueueTask task{storageId(i), "trackDeliveryMetric", *adapter->toJson(body), {}};
        state.inventory.push_back(
            tern::QueueTaskMetadata{task.storageId, task.type, std::nullopt, std::nullopt,
                                    {1700000000.0 + i}});
        state.tasks.push_back(std::move(task));
    }
}

// Puts all tasks back into the queue, as files written by the library's own storage.
void fillQueue(Bench& state) {
    auto files = state.graph->fileStorage();
    auto adapter = state.graph->jsonAdapter();
    for (const auto& task : state.tasks) {
        if (!files->save(tern::FileType::queueTask, *adapter->toJson(task), task.storageId)) {
            std::abort();
        }
    }
    auto storage = state.graph->queueStorage();
    if (!storage->saveInventory(state.inventory) || !storage->get(state.tasks.front().storageId)) {
        std::abort();
    }
}

void BM_QueueDrain(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        fillQueue(*bench);
        auto queue = bench->graph->queue();
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();

        std::promise<void> drained;
        queue->run([&drained] { drained.set_value(); });
        drained.get_future().wait();

        bench->queueSeconds.push_back(secondsSince(start));
        state.PauseTiming();
        if (!bench->graph->queueStorage()->getInventory().empty()) std::abort();
        state.ResumeTiming();
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
}

// One reused libcurl handle that sends the delivery metric requests as the library does.
class PlainCurlSender {
public:
    PlainCurlSender() {
        const std::string authorization =
            "Authorization: Basic " +
            std::string("ZHJhaW5iZW5jaDpiZW5jaGtleQ==");  // base64("drainbench:benchkey")
        const std::string userAgent =
            "User-Agent: " + bench->graph->userAgentUtil()->getUserAgentHeaderValue();
        headers_ = curl_slist_append(headers_, "Content-Type: application/json; charset=utf-8");
        headers_ = curl_slist_append(headers_, authorization.c_str());
        headers_ = curl_slist_append(headers_, userAgent.c_str());
        curl_easy_setopt(curl_, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION,
                         +[](char* data, size_t size, size_t count, void* target) -> size_t {
                             static_cast<std::string*>(target)->append(data, size * count);
                             return size * count;
                         });
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &response_);
        // The library's sessions accept every encoding curl can decode; so the same request
        // asks for them here, and the server does the same work for both.
        curl_easy_setopt(curl_, CURLOPT_ACCEPT_ENCODING, "");
    }
    ~PlainCurlSender() {
        curl_easy_cleanup(curl_);
        curl_slist_free_all(headers_);
    }
    PlainCurlSender(const PlainCurlSender&) = delete;
    PlainCurlSender& operator=(const PlainCurlSender&) = delete;

    void send(const Bytes& body) {
        response_.clear();
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        long status = 0;
        if (curl_easy_perform(curl_) != CURLE_OK) std::abort();
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
        if (status != 200) std::abort();
    }

private:
    const std::string url_ = bench->server.origin() + "/api/v1/tern_deliveries/events";
    curl_slist* headers_ = nullptr;
    CURL* curl_ = curl_easy_init();
    std::string response_;
};

void BM_PlainCurl(benchmark::State& state) {
    PlainCurlSender sender;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (const auto& task : bench->tasks) sender.send(task.data);
        bench->curlSeconds.push_back(secondsSince(start));
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_StorageStepsOnly(benchmark::State& state) {
    auto storage = bench->graph->queueStorage();
    for (auto _ : state) {
        state.PauseTiming();
        fillQueue(*bench);
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        for (const auto& task : bench->tasks) {
            benchmark::DoNotOptimize(storage->getInventory());
            benchmark::DoNotOptimize(storage->get(task.storageId));
            storage->deleteTask(task.storageId);
        }
        bench->storageSeconds.push_back(secondsSince(start));
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_HttpClientOnly(benchmark::State& state) {
    auto client = bench->graph->httpClient();
    const tern::HttpBaseUrls baseUrls{bench->server.origin()};
    const auto endpoint = tern::TernApiEndpoint::trackDeliveryMetrics();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        std::promise<void> done;
        std::function<void(std::size_t)> send = [&](std::size_t index) {
            if (index == bench->tasks.size()) {
                done.set_value();
                return;
            }
            client->request(*tern::HttpRequestParams::make(endpoint, baseUrls, std::nullopt,
                                                           bench->tasks[index].data),
                            [&send, index](const tern::HttpRequestResult& result) {
                                if (!result) std::abort();
                                send(index + 1);
                            });
        };
        send(0);
        done.get_future().wait();
        bench->clientSeconds.push_back(secondsSince(start));
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
}

// Sends on a thread of its own; the caller waits for each answer, as a run's loop does.
class SenderThread {
public:
    SenderThread() : thread_([this] { serve(); }) {}
    ~SenderThread() {
        {
            std::lock_guard hold(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    SenderThread(const SenderThread&) = delete;
    SenderThread& operator=(const SenderThread&) = delete;

    void send(const Bytes& body) {
        std::unique_lock hold(mutex_);
        body_ = &body;
        changed_.notify_all();
        changed_.wait(hold, [this] { return body_ == nullptr; });
    }

private:
    void serve() {
        PlainCurlSender sender;
        std::unique_lock hold(mutex_);
        while (true) {
            changed_.wait(hold, [this] { return stopping_ || body_ != nullptr; });
            if (stopping_) return;
            sender.send(*body_);
            body_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    const Bytes* body_ = nullptr;
    bool stopping_ = false;
    std::thread thread_;
};

fs::path floorDirectory;

void writeWhole(const fs::path& path, std::string_view bytes) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        std::abort();
    }
    ::close(fd);
}

std::string encoded(const auto& value) {
    auto bytes = bench->graph->jsonAdapter()->toJson(value);
    return std::string(bytes->begin(), bytes->end());
}

void BM_PerTaskFloor(benchmark::State& state) {
    const fs::path inventoryPath = floorDirectory / "inventory.json";
    const fs::path scratchPath = floorDirectory / ".inventory.json.scratch";
    std::vector<std::size_t> entryLengths;
    for (const auto& entry : bench->inventory) entryLengths.push_back(encoded(entry).size());
    SenderThread sender;
    auto adapter = bench->graph->jsonAdapter();
    auto globalData = bench->graph->globalDataStore();
    Bytes buffer(1 << 16);
    for (auto _ : state) {
        state.PauseTiming();
        fs::create_directories(floorDirectory / "tasks");
        std::vector<fs::path> taskPaths;
        for (const auto& task : bench->tasks) {
            taskPaths.push_back(floorDirectory / "tasks" / (task.storageId + ".json"));
            writeWhole(taskPaths.back(), encoded(task));
        }
        std::string inventory = encoded(bench->inventory);
        writeWhole(inventoryPath, inventory);
        writeWhole(scratchPath, inventory);
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t i = 0; i < bench->tasks.size(); ++i) {
            struct stat inventoryStat{};
            if (::stat(inventoryPath.c_str(), &inventoryStat) != 0) std::abort();
            const int taskFd = ::open(taskPaths[i].c_str(), O_RDONLY);
            const ssize_t taskLength = ::read(taskFd, buffer.data(), buffer.size());
            if (taskFd < 0 || taskLength <= 0) std::abort();
            ::close(taskFd);
            const auto task = adapter->fromJson<tern::QueueTask>(
                Bytes(buffer.begin(), buffer.begin() + taskLength), false);
            if (!task) std::abort();

            if (globalData->httpRequestsPauseEnds()) std::abort();
            sender.send(task->data);

            // "[" + the entries after the first one and its comma + "]"; the last leaves "[]".
            inventory.erase(1, std::min(entryLengths[i] + 1, inventory.size() - 2));
            const int scratchFd = ::open(scratchPath.c_str(), O_WRONLY);
            if (scratchFd < 0 ||
                ::pwrite(scratchFd, inventory.data(), inventory.size(), 0) !=
                    static_cast<ssize_t>(inventory.size()) ||
                ::ftruncate(scratchFd, static_cast<off_t>(inventory.size())) != 0) {
                std::abort();
            }
            ::close(scratchFd);
            if (::renameat2(AT_FDCWD, scratchPath.c_str(), AT_FDCWD, inventoryPath.c_str(),
                            RENAME_EXCHANGE) != 0 ||
                ::unlink(taskPaths[i].c_str()) != 0) {
                std::abort();
            }
        }
        bench->floorSeconds.push_back(secondsSince(start));
        if (inventory != "[]") std::abort();
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_PlainCurl)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueDrain)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StorageStepsOnly)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HttpClientOnly)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PerTaskFloor)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

// The middle value: one slow iteration on a busy machine moves it less than the mean.
double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::ranges::sort(values);
    return values[values.size() / 2];
}

double peakRssMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
}

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = (fs::temp_directory_path() / "vontu-drain-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return 1;
    const fs::path home = pattern;
    floorDirectory = home / "floor";
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int status = 0;
    {
        vontu::platform::linux_host::HostSettings settings;
        settings.home = home;
        vontu::platform::linux_host::LinuxEnv env(settings);
        Env::setCurrent(&env);
        std::thread mainThread([&env] { env.runMainLoop(); });
        {
            Bench state;
            tern::SdkConfig config;
            config.trackingApiUrl = state.server.origin();
            config.logLevel = tern::TernLogLevel::error;
            state.graph = std::make_unique<tern::DIGraph>(siteId, apiKey, config);
            makeTasks(state);
            bench = &state;

            benchmark::Initialize(&argc, argv);
            if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
                status = 1;
            } else {
                benchmark::RunSpecifiedBenchmarks();
                benchmark::Shutdown();
                const double queue = median(state.queueSeconds);
                const double curl = median(state.curlSeconds);
                const double storage = median(state.storageSeconds);
                const double client = median(state.clientSeconds);
                const double floor = median(state.floorSeconds);
                if (queue > 0 && curl > 0) {
                    std::printf("queue drain: %.0f tasks/s, libcurl alone: %.0f requests/s, "
                                "ratio (queue time / curl time, medians): %.2fx\n",
                                taskCount / queue, taskCount / curl, queue / curl);
                }
                if (queue > 0 && storage > 0 && client > 0) {
                    const double rest = queue - storage - client;
                    std::printf("drain split: storage steps %.0f ms (%.0f%%), HTTP client %.0f ms "
                                "(%.0f%%), run loop and runner %.0f ms (%.0f%%)\n",
                                storage * 1e3, 100 * storage / queue, client * 1e3,
                                100 * client / queue, rest * 1e3, 100 * rest / queue);
                }
                if (floor > 0 && curl > 0) {
                    std::printf("least a run could do: %.0f tasks/s, ratio %.2fx of libcurl "
                                "alone\n",
                                taskCount / floor, floor / curl);
                }
                std::printf("peak RSS: %.1f MiB\n", peakRssMegabytes());
            }
            bench = nullptr;
        }
        env.stopMainLoop();
        mainThread.join();
        Env::setCurrent(nullptr);
    }
    curl_global_cleanup();
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return status;
}
