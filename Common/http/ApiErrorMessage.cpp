#include "Common/http/ApiErrorMessage.hpp"

#include "Common/http/ErrorMessageResponse.hpp"
#include "Common/http/ErrorsMessageResponse.hpp"
#include "Common/util/Utf8.hpp"

namespace tern {

namespace {

constexpr const char* noResponseMessage = "(server did not give a response)";

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) text += separator;
        text += parts[i];
    }
    return text;
}

}  // namespace

std::string apiErrorMessage(const std::optional<vontu::platform::Bytes>& body,
                            const JsonAdapter& jsonAdapter) {
    if (!body || body->empty()) return noResponseMessage;
    std::string text = vontu::platform::toString(*body);
    if (!isValidUtf8(text)) return noResponseMessage;

    constexpr bool logErrors = false;
    if (auto single = jsonAdapter.fromJson<ErrorMessageResponse>(*body, logErrors)) {
        return single->meta.error;
    }
    if (auto several = jsonAdapter.fromJson<ErrorsMessageResponse>(*body, logErrors)) {
        return joined(several->meta.errors, ",");
    }
    return text;
}

}  // namespace tern
