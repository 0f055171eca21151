// The queue storage's create, get and delete on inventories of 10, 100 and 1,000 tasks, against
// a baseline that moves the same bytes with plain file calls (open, write, rename, read) and
// no JSON, no locks and no storage layers. The baseline comes in two forms: without fsync, and
// with an fsync before each rename.
//
// Every benchmark puts the queue back to its size after each timed operation (untimed), so the
// inventory size stays what the argument says. Complexity() fits the growth with the size.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/config/SdkConfig.hpp"
#include "Common/queue/FileManagerQueueStorage.hpp"
#include "Common/storage/FileManagerFileStorage.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "Common/util/LockManager.hpp"
#include "Common/util/SdkDateUtil.hpp"
#include "platform/Env.hpp"
#include "platform/linux/LinuxEnv.hpp"

namespace {

namespace fs = std::filesystem;
using tern::QueueTask;
using tern::QueueTaskMetadata;
using vontu::platform::Bytes;
using vontu::platform::Env;
using vontu::platform::toBytes;

class SilentLogger final : public tern::Logger {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void error(const std::string&) override {}
};

// --- Plain file calls

void writeAll(int fd, const Bytes& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        auto n = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (n <= 0) std::abort();
        written += static_cast<std::size_t>(n);
    }
}

// Replaces path whole: a temporary file in the same directory, then a rename.
void replaceFile(const fs::path& path, const Bytes& bytes, bool sync) {
    const fs::path temporary = path.parent_path() / ("." + path.filename().string() + ".tmp");
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    writeAll(fd, bytes);
    if (sync) ::fsync(fd);
    ::close(fd);
    if (::rename(temporary.c_str(), path.c_str()) != 0) std::abort();
}

Bytes readFile(const fs::path& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) std::abort();
    Bytes bytes;
    std::uint8_t buffer[65536];
    while (true) {
        auto n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
    ::close(fd);
    return bytes;
}

// --- A queue of a given size and the bytes of its files

struct Queue {
    std::string siteId;
    fs::path directory;
    std::shared_ptr<tern::FileManagerQueueStorage> storage;
    std::vector<QueueTaskMetadata> inventory;
    Bytes inventoryBytes;
    // The inventory with one more entry (a create) and with the middle one gone (a delete).
    Bytes inventoryPlusOneBytes;
    Bytes inventoryMinusMiddleBytes;
    std::string middleId;
    Bytes middleTaskBytes;

    fs::path inventoryFile() const { return directory / "inventory.json"; }
    fs::path taskFile(const std::string& id) const { return directory / "tasks" / (id + ".json"); }

    // Back to the prepared state: the inventory of `size` entries and the middle task's file.
    void restore() const {
        replaceFile(inventoryFile(), inventoryBytes, false);
        replaceFile(taskFile(middleId), middleTaskBytes, false);
    }
};

const Bytes taskData = toBytes(R"({"name":"purchase","data":{"price":12.5,"currency":"EUR"}})");

// One queue per size, made once for the run with plain writes (its making is not measured).
Queue& queueOfSize(std::int64_t size) {
    static std::map<std::int64_t, std::unique_ptr<Queue>> queues;
    auto& queue = queues[size];
    if (queue) return *queue;

    queue = std::make_unique<Queue>();
    queue->siteId = "bench" + std::to_string(size);
    auto logger = std::make_shared<SilentLogger>();
    auto adapter = std::make_shared<tern::JsonAdapter>(logger);
    queue->storage = std::make_shared<tern::FileManagerQueueStorage>(
        std::make_shared<tern::FileManagerFileStorage>(queue->siteId, logger), adapter,
        queue->siteId, tern::SdkConfig{}, logger, std::make_shared<tern::SdkDateUtil>(),
        std::make_shared<tern::LockManager>());
    queue->directory =
        *Env::current().applicationSupportDirectory() / "dev.tern" / queue->siteId / "queue";
    fs::create_directories(queue->directory / "tasks");

    const double now = Env::current().now().secondsSince1970;
    for (std::int64_t i = 0; i < size; ++i) {
        QueueTask task{"TASK-" + std::to_string(size) + "-" + std::to_string(i), "trackEvent",
                       taskData, {0}};
        replaceFile(queue->taskFile(task.storageId), *adapter->toJson(task), false);
        queue->inventory.push_back(QueueTaskMetadata{
            task.storageId, task.type, std::nullopt,
            std::vector<std::string>{"identified_profile_user@example.com"}, {now}});
    }
    queue->inventoryBytes = *adapter->toJson(queue->inventory);
    auto plusOne = queue->inventory;
    plusOne.push_back(queue->inventory.front());
    plusOne.back().taskPersistedId = "TASK-NEW";
    queue->inventoryPlusOneBytes = *adapter->toJson(plusOne);

    const auto& middle = queue->inventory[queue->inventory.size() / 2];
    queue->middleId = middle.taskPersistedId;
    queue->middleTaskBytes = readFile(queue->taskFile(queue->middleId));
    auto minusMiddle = queue->inventory;
    minusMiddle.erase(minusMiddle.begin() + static_cast<std::ptrdiff_t>(minusMiddle.size() / 2));
    queue->inventoryMinusMiddleBytes = *adapter->toJson(minusMiddle);

    queue->restore();
    return *queue;
}

// --- The storage

void BM_StorageCreate(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    for (auto _ : state) {
        auto result = queue.storage->create("trackEvent", taskData, std::nullopt,
                                            std::vector{tern::QueueTaskGroup::identifiedProfile(
                                                "user@example.com")});
        state.PauseTiming();
        if (!result.success || !result.createdTask) {
            state.SkipWithError("create failed");
        } else {
            fs::remove(queue.taskFile(result.createdTask->taskPersistedId));
        }
        queue.restore();
        state.ResumeTiming();
    }
    state.SetComplexityN(state.range(0));
}

void BM_StorageGet(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    for (auto _ : state) {
        auto task = queue.storage->get(queue.middleId);
        if (!task) state.SkipWithError("get failed");
        benchmark::DoNotOptimize(task);
    }
    state.SetComplexityN(state.range(0));
}

void BM_StorageGetInventory(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    for (auto _ : state) {
        auto inventory = queue.storage->getInventory();
        if (inventory.size() != static_cast<std::size_t>(state.range(0))) {
            state.SkipWithError("wrong inventory");
        }
        benchmark::DoNotOptimize(inventory);
    }
    state.SetComplexityN(state.range(0));
}

void BM_StorageDelete(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    for (auto _ : state) {
        bool deleted = queue.storage->deleteTask(queue.middleId);
        state.PauseTiming();
        if (!deleted) state.SkipWithError("delete failed");
        queue.restore();
        state.ResumeTiming();
    }
    state.SetComplexityN(state.range(0));
}

// --- The same bytes with plain file calls: what create, get and delete read and write

template <bool Sync>
void BM_PlainCreate(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    const fs::path newTask = queue.taskFile("TASK-NEW");
    for (auto _ : state) {
        benchmark::DoNotOptimize(readFile(queue.inventoryFile()));
        replaceFile(newTask, queue.middleTaskBytes, Sync);
        replaceFile(queue.inventoryFile(), queue.inventoryPlusOneBytes, Sync);
        benchmark::DoNotOptimize(readFile(queue.inventoryFile()));
        state.PauseTiming();
        fs::remove(newTask);
        queue.restore();
        state.ResumeTiming();
    }
    state.SetComplexityN(state.range(0));
}

void BM_PlainGet(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    const fs::path task = queue.taskFile(queue.middleId);
    for (auto _ : state) benchmark::DoNotOptimize(readFile(task));
    state.SetComplexityN(state.range(0));
}

template <bool Sync>
void BM_PlainDelete(benchmark::State& state) {
    const Queue& queue = queueOfSize(state.range(0));
    queue.restore();
    const fs::path task = queue.taskFile(queue.middleId);
    for (auto _ : state) {
        benchmark::DoNotOptimize(readFile(queue.inventoryFile()));
        replaceFile(queue.inventoryFile(), queue.inventoryMinusMiddleBytes, Sync);
        ::unlink(task.c_str());
        state.PauseTiming();
        queue.restore();
        state.ResumeTiming();
    }
    state.SetComplexityN(state.range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(10)->Arg(100)->Arg(1000)->Complexity()->UseRealTime()->Unit(
        benchmark::kMicrosecond);
}

BENCHMARK(BM_StorageCreate)->Apply(sizes);
BENCHMARK(BM_PlainCreate<false>)->Apply(sizes);
BENCHMARK(BM_PlainCreate<true>)->Apply(sizes);
BENCHMARK(BM_StorageGet)->Apply(sizes);
BENCHMARK(BM_PlainGet)->Apply(sizes);
BENCHMARK(BM_StorageGetInventory)->Apply(sizes);
BENCHMARK(BM_StorageDelete)->Apply(sizes);
BENCHMARK(BM_PlainDelete<false>)->Apply(sizes);
BENCHMARK(BM_PlainDelete<true>)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
    // A state root of its own, removed at the end.
    std::string pattern = (fs::temp_directory_path() / "vontu-queue-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return 1;
    const fs::path home = pattern;
    int status = 0;
    {
        vontu::platform::linux_host::HostSettings settings;
        settings.home = home;
        vontu::platform::linux_host::LinuxEnv env(settings);
        Env::setCurrent(&env);

        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
            status = 1;
        } else {
            benchmark::RunSpecifiedBenchmarks();
            benchmark::Shutdown();
        }
        Env::setCurrent(nullptr);
    }
    std::error_code ignored;
    fs::remove_all(home, ignored);
    return status;
}
