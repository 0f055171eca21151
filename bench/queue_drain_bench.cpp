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
// Reported per benchmark: tasks_per_second; after the run, the ratio of the drain's time to
// libcurl's and the split (medians of the iterations), and the process's peak resident set
// size.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/DIGraph.hpp"
#include "Common/http/HttpRequestParams.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/queue/TrackDeliveryEventRequestBody.hpp"
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

void BM_PlainCurl(benchmark::State& state) {
    const std::string url = bench->server.origin() + "/api/v1/tern_deliveries/events";
    const std::string authorization =
        "Authorization: Basic " +
        std::string("ZHJhaW5iZW5jaDpiZW5jaGtleQ==");  // base64("drainbench:benchkey")
    const std::string userAgent =
        "User-Agent: " + bench->graph->userAgentUtil()->getUserAgentHeaderValue();
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Content-Type: application/json; charset=utf-8");
    headers = curl_slist_append(headers, authorization.c_str());
    headers = curl_slist_append(headers, userAgent.c_str());
    CURL* curl = curl_easy_init();
    std::string response;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION,
                     +[](char* data, size_t size, size_t count, void* target) -> size_t {
                         static_cast<std::string*>(target)->append(data, size * count);
                         return size * count;
                     });
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
    // The library's sessions accept every encoding curl can decode; so the same request asks
    // for them here, and the server does the same work for both.
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");

    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (const auto& task : bench->tasks) {
            response.clear();
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, task.data.data());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(task.data.size()));
            long status = 0;
            if (curl_easy_perform(curl) != CURLE_OK) std::abort();
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
            if (status != 200) std::abort();
        }
        bench->curlSeconds.push_back(secondsSince(start));
    }
    state.counters["tasks_per_second"] =
        benchmark::Counter(taskCount, benchmark::Counter::kIsIterationInvariantRate);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
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

BENCHMARK(BM_PlainCurl)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueDrain)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StorageStepsOnly)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HttpClientOnly)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

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
