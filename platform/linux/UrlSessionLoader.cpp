#include <mutex>

#include "platform/linux/CurlUrlSession.hpp"
#include "platform/linux/ModuleLoader.hpp"
#include "platform/linux/UrlSessionModule.hpp"

namespace vontu::platform::linux_host {

namespace {

// A session that refuses every task, for a process whose network module cannot be loaded:
// each completion reports the failure at once, so callers go on as with no network.
class UnavailableUrlSession final : public UrlSession {
public:
    std::shared_ptr<UrlSessionTask> dataTask(UrlRequest, DataTaskCompletion completion) override {
        completion(std::nullopt, std::nullopt, unavailable());
        return std::make_shared<NoTask>();
    }
    std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest,
                                                 DownloadTaskCompletion completion) override {
        completion(std::nullopt, std::nullopt, unavailable());
        return std::make_shared<NoTask>();
    }
    void finishTasksAndInvalidate() override {}
    void invalidateAndCancel() override {}

private:
    struct NoTask final : UrlSessionTask {
        void cancel() override {}
    };
    static UrlError unavailable() {
        return UrlError{UrlError::Code::other,
                        std::string("the network module ") + kUrlSessionModuleFileName +
                            " could not be loaded"};
    }
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
