// A whole run over a queue directory built from the input, as other processes or older versions
// may have left it: {"inventory": <the inventory file's JSON>, "tasks": {"<id>": <task JSON>}}.
// Each task's outcome comes from its data (success, a failure, a rejection or a pause). The run
// ends and calls its callback, no task is offered twice in one run, and the inventory it leaves
// reads.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <set>

#include "fuzz/FuzzSupport.hpp"
#include "Common/DIGraph.hpp"
#include "platform/FileName.hpp"

namespace {

namespace fs = std::filesystem;
using Outcome = std::expected<void, tern::HttpRequestError>;

class OutcomeFromData final : public tern::QueueRunner {
public:
    void runTask(const tern::QueueTask& task, Completion onComplete) override {
        {
            std::lock_guard lock(mutex_);
            vontu::fuzz::require(offered_.insert(task.storageId).second,
                                 "a task offered twice in one run");
        }
        switch (task.data.size() % 4) {
            case 0: onComplete(Outcome{}); break;
            case 1: onComplete(std::unexpected(tern::HttpRequestError::unsuccessfulStatusCode(404, ""))); break;
            case 2: onComplete(std::unexpected(tern::HttpRequestError::badRequest400("no"))); break;
            default: onComplete(std::unexpected(tern::HttpRequestError::requestsPaused())); break;
        }
    }

private:
    std::mutex mutex_;
    std::set<std::string> offered_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& env = vontu::fuzz::linuxEnv();
    const auto input = vontu::fuzz::jsonOf(data, size);
    if (!input.is_object()) return 0;

    const fs::path queue = *env.applicationSupportDirectory() / "dev.tern" / "fuzz" / "queue";
    std::error_code ignored;
    fs::remove_all(queue, ignored);
    fs::create_directories(queue / "tasks");
    if (input.contains("inventory")) std::ofstream(queue / "inventory.json") << input["inventory"].dump();
    if (input.contains("tasks") && input["tasks"].is_object()) {
        for (const auto& [id, task] : input["tasks"].items()) {
            if (vontu::platform::isSingleFileName(id)) std::ofstream(queue / "tasks" / (id + ".json")) << task.dump();
        }
    }

    tern::SdkConfig config;
    config.backgroundQueueMinNumberOfTasks = 1000;
    tern::DIGraph graph("fuzz", "key", config);
    graph.override<tern::Logger>(std::make_shared<vontu::fuzz::QuietLogger>());
    graph.override<tern::QueueRunner>(std::make_shared<OutcomeFromData>());
    auto ended = std::make_shared<std::promise<void>>();
    graph.queue()->run([ended] { ended->set_value(); });
    vontu::fuzz::require(ended->get_future().wait_for(std::chrono::seconds(10)) ==
                             std::future_status::ready,
                         "the run did not end");
    (void)graph.queueStorage()->getInventory();
    std::ifstream left(queue / "inventory.json");
    if (left) {
        const auto json = nlohmann::json::parse(left, nullptr, false);
        vontu::fuzz::require(!json.is_discarded(), "the run left an inventory that does not read");
    }
    return 0;
}
