// URLs and file names from outside: deep links, attachment and download names, ids that name
// files. A percent-encoded identifier is always one segment of a URL that parses.
#include "fuzz/FuzzSupport.hpp"
#include "Common/http/UrlRequestHttpRequestRunner.hpp"
#include "Common/util/Url.hpp"
#include "platform/FileName.hpp"
#include "platform/UrlSession.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vontu::fuzz::linuxEnv();
    const auto input = vontu::fuzz::text(data, size);
    if (auto url = tern::Url::parse(input)) (void)url->path();

    const std::string segment = tern::percentEncodedPathSegment(input);
    auto joined = tern::Url::parse("https://track.example/api/v1/customers/" + segment);
    vontu::fuzz::require(joined.has_value(), "an encoded identifier makes a URL that does not parse");
    vontu::fuzz::require(segment.find_first_of("/?#") == std::string::npos && segment != "." &&
                             segment != "..",
                         "an encoded identifier is more than one segment");

    vontu::platform::HttpUrlResponse response;
    response.url = "https://cdn.example/" + std::string(input.substr(0, input.size() / 2));
    response.headers = {{"Content-Disposition", std::string(input.substr(input.size() / 2))}};
    if (auto name = response.suggestedFilename()) {
        if (auto safe = tern::UrlRequestHttpRequestRunner::safeFileName(*name)) {
            vontu::fuzz::require(vontu::platform::isSingleFileName(*safe),
                                 "a download's file name leaves its directory");
        }
    }
    return 0;
}
