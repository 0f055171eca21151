#include <gtest/gtest.h>

#include "platform/UrlSession.hpp"

namespace vontu::platform {
namespace {

// The header is looked up by a name in another case, and only its first value counts.
TEST(HttpUrlResponseTest, SuggestedFilenameComesFromContentDispositionThenTheUrl) {
    const struct {
        const char* url;
        const char* disposition;  // nullptr: no Content-Disposition header
        std::optional<std::string> expected;
    } cases[] = {
        {"https://cdn.example/img/photo.jpg?size=2#top", nullptr, "photo.jpg"},
        {"https://cdn.example/img/a%20b%C3%A9.png", nullptr, "a b\xC3\xA9.png"},
        {"https://cdn.example/img/100%zz.png", nullptr, "100%zz.png"},
        {"https://cdn.example/img/dir/", nullptr, "dir"},
        {"https://cdn.example/", nullptr, std::nullopt},
        {"https://cdn.example/a/..", nullptr, std::nullopt},
        {"https://cdn.example/x", "attachment; filename=plain.txt", "plain.txt"},
        {"https://cdn.example/x", "inline; filename=\"a\\\"b;c.txt\"; size=3", "a\"b;c.txt"},
        {"https://cdn.example/x", "attachment; filename=\"fallback.png\"; filename*=UTF-8''na%C3%AFve%20file.png",
         "na\xC3\xAFve file.png"},
        {"https://cdn.example/x", "attachment; FILENAME*=iso-8859-1'en'caf%E9.txt", "caf\xC3\xA9.txt"},
        {"https://cdn.example/x", "attachment; filename*=KOI8-R''x.txt; filename=\"y.txt\"", "y.txt"},
        {"https://cdn.example/from-url.gif", "attachment; filename=\"\"", "from-url.gif"},
        // Not made safe here: whoever stores the file must check the name.
        {"https://cdn.example/x", "attachment; filename=\"../../etc/passwd\"", "../../etc/passwd"},
    };
    for (const auto& c : cases) {
        HttpUrlResponse response{c.url, 200, {}};
        if (c.disposition != nullptr) {
            response.headers = {{"content-disposition", c.disposition}, {"Content-Disposition", "attachment; filename=later.txt"}};
        }
        EXPECT_EQ(response.suggestedFilename(), c.expected)
            << c.url << " / " << (c.disposition != nullptr ? c.disposition : "(none)");
    }
}

}  // namespace
}  // namespace vontu::platform
