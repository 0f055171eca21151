// A rich push's image as its server answers it: {"url": ..., "status": N, "headers": [[name,
// value], ...], "body": "..."}. The download is kept under the name the answer suggests only when
// that name stays in the download directory, and the push then carries it as an attachment.
#include <filesystem>
#include <fstream>

#include "fuzz/FuzzSupport.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/util/JsonAdapter.hpp"
#include "messaging_push/TernParsedPushPayload.hpp"

namespace {

namespace fs = std::filesystem;
using namespace vontu::platform;

// Answers every download with the input's response, its body in a file of the session's.
class AnsweringSession final : public vontu::fuzz::AnsweringSessionBase {
public:
    AnsweringSession(HttpUrlResponse response, std::string body, fs::path scratch)
        : response_(std::move(response)), body_(std::move(body)), scratch_(std::move(scratch)) {}
    std::shared_ptr<UrlSessionTask> dataTask(UrlRequest, DataTaskCompletion done) override {
        done(std::nullopt, std::nullopt, UrlError{UrlError::Code::other, "no data tasks"});
        return finishedTask();
    }
    std::shared_ptr<UrlSessionTask> downloadTask(UrlRequest, DownloadTaskCompletion done) override {
        std::ofstream(scratch_, std::ios::binary) << body_;
        done(scratch_, response_, std::nullopt);
        std::error_code ignored;
        fs::remove(scratch_, ignored);  // the session's file, unless the completion took it
        return finishedTask();
    }
private:
    HttpUrlResponse response_;
    std::string body_;
    fs::path scratch_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& env = vontu::fuzz::linuxEnv();
    static const auto adapter =
        std::make_shared<tern::JsonAdapter>(std::make_shared<vontu::fuzz::QuietLogger>());
    const auto input = vontu::fuzz::jsonOf(data, size);
    if (!input.is_object()) return 0;
    const std::string urlText = input.value("url", nlohmann::json("")).is_string()
                                    ? input.value("url", std::string())
                                    : std::string();
    const auto url = tern::Url::parse(urlText);
    if (!url) return 0;
    HttpUrlResponse response{urlText, input.value("status", nlohmann::json(200)).is_number_integer()
                                          ? input.value("status", 200L)
                                          : 200L,
                             {}};
    if (input.contains("headers") && input["headers"].is_array()) {
        for (const auto& header : input["headers"]) {
            if (header.is_array() && header.size() == 2 && header[0].is_string() && header[1].is_string()) {
                response.headers.emplace_back(header[0].get<std::string>(), header[1].get<std::string>());
            }
        }
    }
    const std::string body = input.contains("body") && input["body"].is_string()
                                 ? input["body"].get<std::string>()
                                 : std::string();
    const fs::path downloads = *env.temporaryDirectory() / tern::UrlRequestHttpRequestRunner::downloadDirectoryName;
    std::error_code ignored;
    fs::remove_all(downloads, ignored);
    auto session = std::make_shared<AnsweringSession>(response, body, *env.temporaryDirectory() / "download.scratch");

    NotificationContent content;
    content.userInfo = {{"TERN-Delivery-ID", "d"}, {"TERN-Delivery-Token", "t"},
                        {"TERN", {{"push", {{"image", urlText}}}}}};
    auto payload = tern::TernParsedPushPayload::parse(content, adapter);
    tern::UrlRequestHttpRequestRunner runner;
    runner.downloadFile(*url, tern::DownloadFileType::richPushImage, session,
                        [&](std::optional<fs::path> file) {
                            if (!file) return;
                            vontu::fuzz::require(file->parent_path() == downloads,
                                                 "a download was kept outside its directory");
                            if (payload) payload->addImage(*file);
                        });
    if (payload) (void)payload->mutableContent();
    return 0;
}
