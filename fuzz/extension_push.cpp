// A push as vontu-nse takes it (a request or an APNs payload) through the extension to the
// delivered content: the mail relay and the library's network answer from the input, and the
// shared defaults hold the input's values (read-receipt records, sounds, the device id). The
// content handler is called exactly once, by the extension or, failing that, by the expiry
// warning. Input: {"push": ..., "relay": "answer text", "defaults": {"key": value}}.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "fuzz/FuzzSupport.hpp"
#include "extension/NotificationService.hpp"
#include "platform/EnvWrapper.hpp"
#include "platform/NotificationJson.hpp"
#include "platform/PlistJson.hpp"

namespace {

using namespace vontu::platform;

class MemorySuite final : public DefaultsSuite {
public:
    explicit MemorySuite(PlistDictionary values) : values_(std::move(values)) {}
    std::optional<PlistValue> objectForKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        return found == values_.end() ? std::nullopt : std::optional(found->second);
    }
    bool setObject(const PlistValue& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
        return true;
    }
    bool removeObject(const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_.erase(key);
        return true;
    }
    PlistDictionary dictionaryRepresentation() override {
        std::lock_guard lock(mutex_);
        return values_;
    }
    bool updateObject(const std::string& key, const Change& change) override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        const auto update = change(found == values_.end() ? std::nullopt : std::optional(found->second));
        if (update.action == Update::Action::store) values_[key] = update.value;
        if (update.action == Update::Action::remove) values_.erase(key);
        return true;
    }

private:
    std::mutex mutex_;
    PlistDictionary values_;
};

// Every request gets the input's answer with status 200, on a thread of its own as a session's
// completions come; downloads fail.
class AnsweringSession final : public vontu::fuzz::AnsweringSessionBase {
public:
    explicit AnsweringSession(Bytes answer) : answer_(std::move(answer)) {}
    std::shared_ptr<UrlSessionTask> dataTask(UrlRequest request, DataTaskCompletion done) override {
        HttpUrlResponse response{request.url, 200, {}};
        std::thread([answer = answer_, response, done = std::move(done)] {
            done(answer, response, std::nullopt);
        }).detach();
        return finishedTask();
    }
    std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest, DownloadTaskCompletion done) override {
        std::thread([done = std::move(done)] {
            done(std::nullopt, std::nullopt, UrlError{UrlError::Code::cannotConnect, "no network"});
        }).detach();
        return finishedTask();
    }
private:
    Bytes answer_;
};

class InputEnv final : public EnvWrapper {
public:
    InputEnv(Env& target, PlistDictionary defaults, Bytes answer)
        : EnvWrapper(target), suite_(std::make_shared<MemorySuite>(std::move(defaults))),
          session_(std::make_shared<AnsweringSession>(std::move(answer))) {}
    std::shared_ptr<DefaultsSuite> defaultsSuite(const std::string&) override { return suite_; }
    std::shared_ptr<UrlSession> newUrlSession(const UrlSessionConfiguration&) override {
        return session_;
    }
    std::shared_ptr<UrlSession> sharedUrlSession() override { return session_; }
    std::unique_ptr<ImageCanvas> newImageCanvas(int, int) override { return nullptr; }

private:
    std::shared_ptr<MemorySuite> suite_;
    std::shared_ptr<AnsweringSession> session_;
};

struct Deliveries {
    std::mutex mutex;
    std::condition_variable delivered;
    int count = 0;
    bool waitFor(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex);
        return delivered.wait_for(lock, limit, [this] { return count > 0; });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& host = vontu::fuzz::linuxEnv();
    // A delivery that came late, after its input was done with, is a second one.
    static std::shared_ptr<Deliveries> previous;
    if (previous) vontu::fuzz::require(previous->count <= 1, "content delivered twice");

    const auto input = vontu::fuzz::jsonOf(data, size);
    if (!input.is_object() || !input.contains("push")) return 0;
    auto request = requestFromJson(input["push"]);
    if (!request) return 0;
    PlistDictionary defaults;
    if (input.contains("defaults") && input["defaults"].is_object()) {
        for (const auto& [key, value] : input["defaults"].items()) {
            if (auto plist = plistFromJson(value)) defaults.emplace(key, std::move(*plist));
        }
    }
    const std::string answer = input.contains("relay") && input["relay"].is_string()
                                   ? input["relay"].get<std::string>()
                                   : std::string("{}");
    // Kept for a while after its input: threads the push set going may still hold it.
    static std::deque<std::unique_ptr<InputEnv>> recent;
    recent.push_back(std::make_unique<InputEnv>(host, std::move(defaults), toBytes(answer)));
    if (recent.size() > 64) recent.pop_front();
    Env::setCurrent(recent.back().get());

    auto deliveries = std::make_shared<Deliveries>();
    auto service = std::make_shared<vontu::extension::NotificationService>("https://relay.example");
    service->didReceiveNotificationRequest(*request, [deliveries](const NotificationContent&) {
        std::lock_guard lock(deliveries->mutex);
        ++deliveries->count;
        deliveries->delivered.notify_all();
    });
    if (!deliveries->waitFor(std::chrono::milliseconds(500))) {
        service->serviceExtensionTimeWillExpire();
        vontu::fuzz::require(deliveries->waitFor(std::chrono::seconds(5)),
                             "nothing delivered, not even at the expiry warning");
    }
    // Work the push started may still reach the platform: it finds the real one.
    Env::setCurrent(&host);
    previous = deliveries;
    return 0;
}
