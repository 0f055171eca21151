#include "messaging_push/RichPushRequest.hpp"

#include <utility>

namespace tern {

RichPushRequest::RichPushRequest(CompletionHandler completionHandler,
                                 std::shared_ptr<TernParsedPushPayload> pushContent,
                                 std::shared_ptr<HttpClient> httpClient)
    : completionHandler_(std::move(completionHandler)),
      pushContent_(std::move(pushContent)),
      httpClient_(std::move(httpClient)) {}

void RichPushRequest::start() {
    const auto imageUrlString = pushContent_->imageUrlString();
    const auto imageUrl = imageUrlString ? Url::parse(*imageUrlString) : std::nullopt;
    if (!imageUrl) {
        complete();
        return;
    }
    httpClient_->downloadFile(
        *imageUrl, DownloadFileType::richPushImage,
        [weakSelf = weak_from_this()](std::optional<std::filesystem::path> localFile) {
            if (const auto self = weakSelf.lock()) self->finishWithDownloadedImage(localFile);
        });
}

void RichPushRequest::finishImmediately() { complete(); }

void RichPushRequest::finishWithDownloadedImage(
    const std::optional<std::filesystem::path>& localFile) {
    if (localFile) pushContent_->addImage(*localFile);
    complete();
}

void RichPushRequest::complete() {
    // The client is done either way: a download still running is abandoned.
    httpClient_->cancel(false);
    completionHandler_(pushContent_->mutableContent());
}

}  // namespace tern
