#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/linux/CurlUrlSession.hpp"
#include "platform/linux/ModuleLoader.hpp"
#include "platform/linux/UrlSessionModule.hpp"

namespace vontu::platform::linux_host {

namespace {

// A session that refuses every task, for a process whose network module cannot be loaded:
// each task fails at once, so callers go on as with no network. As with every session, the
// completions run on a thread of the session's own, never inside dataTask or downloadTask,
// whose callers may hold a lock that the completion takes.
class UnavailableUrlSession final : public UrlSession {
public:
    UnavailableUrlSession() : core_(std::make_shared<Core>()) {
        core_->thread = std::thread([core = core_] { core->run(); });
    }
    // Completions still waiting run first (they fail either way). When the last owner lets go
    // inside a completion, the thread cannot be joined: it ends on its own once that returns.
    ~UnavailableUrlSession() override {
        std::thread thread;
        {
            std::lock_guard hold(core_->mutex);
            core_->stopping = true;
            thread = std::move(core_->thread);
        }
        core_->changed.notify_all();
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
    UnavailableUrlSession(const UnavailableUrlSession&) = delete;
    UnavailableUrlSession& operator=(const UnavailableUrlSession&) = delete;

    std::shared_ptr<UrlSessionTask> dataTask(UrlRequest, DataTaskCompletion completion) override {
        core_->post([completion = std::move(completion)] {
            completion(std::nullopt, std::nullopt, unavailable());
        });
        return std::make_shared<NoTask>();
    }
    std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest,
                                                 DownloadTaskCompletion completion) override {
        core_->post([completion = std::move(completion)] {
            completion(std::nullopt, std::nullopt, unavailable());
        });
        return std::make_shared<NoTask>();
    }
    void finishTasksAndInvalidate() override {}
    void invalidateAndCancel() override {}

private:
    struct NoTask final : UrlSessionTask {
        void cancel() override {}
    };
    // What the session's thread shares with it; the thread holds it too, so that it outlives
    // a session released on that thread.
    struct Core {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<std::function<void()>> completions;
        bool stopping = false;
        std::thread thread;

        void post(std::function<void()> completion) {
            {
                std::lock_guard hold(mutex);
                completions.push_back(std::move(completion));
            }
            changed.notify_all();
        }
        void run() {
            std::unique_lock hold(mutex);
            while (true) {
                changed.wait(hold, [this] { return stopping || !completions.empty(); });
                if (completions.empty()) return;
                auto next = std::move(completions.front());
                completions.pop_front();
                hold.unlock();
                next();
                hold.lock();
            }
        }
    };
    static UrlError unavailable() {
        return UrlError{UrlError::Code::other,
                        std::string("the network module ") + kUrlSessionModuleFileName +
                            " could not be loaded"};
    }

    std::shared_ptr<Core> core_;
};

template <typename Function>
Function loadExport(const char* symbol) {
    const ModuleSpec module{kUrlSessionModuleFileName, kUrlSessionModuleVariable,
                          VONTU_URLSESSION_MODULE_BUILD_PATH, symbol};
    return reinterpret_cast<Function>(loadModuleSymbol(module));
}

}  // namespace

std::shared_ptr<UrlSession> makeCurlUrlSession(const UrlSessionConfiguration& config,
                                               const NetworkOptions& network,
                                               const std::filesystem::path& downloadDirectory) {
    static std::once_flag loaded;
    static MakeUrlSessionFunction factory = nullptr;
    std::call_once(loaded, [] { factory = loadExport<MakeUrlSessionFunction>(kMakeUrlSessionSymbol); });
    std::shared_ptr<UrlSession> session;
    if (factory != nullptr) factory(&config, &network, &downloadDirectory, &session);
    if (!session) session = std::make_shared<UnavailableUrlSession>();
    return session;
}

bool curlAcceptsUrl(const std::string& url) {
    static std::once_flag loaded;
    static AcceptsUrlFunction accepts = nullptr;
    std::call_once(loaded, [] { accepts = loadExport<AcceptsUrlFunction>(kAcceptsUrlSymbol); });
    return accepts != nullptr && accepts(url.c_str());
}

}  // namespace vontu::platform::linux_host
