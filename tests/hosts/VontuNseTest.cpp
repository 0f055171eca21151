// vontu-nse run as a process, as the system runs the extension.

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/Crypto.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu {
namespace {

using nlohmann::json;

class VontuNse : public ::testing::Test {
protected:
    testing::ProcessResult nse(std::vector<std::string> args, const std::string& input = {},
                               const std::map<std::string, std::string>& environment = {}) {
        args.insert(args.begin(), {"--home", home_.path().string()});
        return testing::runProcess(testing::builtProgram("hosts/vontu-nse"), args, input,
                                   environment);
    }
    testing::ProcessResult defaults(std::vector<std::string> args) {
        args.insert(args.begin(), {"--home", home_.path().string()});
        return testing::runProcess(testing::builtProgram("hosts/vontu-defaults"), args);
    }
    void relayAnswers(std::string answer) {
        relay_.server().Post("/post/eml", [answer](const httplib::Request&, httplib::Response& res) {
            res.set_content(answer, "application/json");
        });
    }
    // The arguments that reach the relay, then more, then standard input as the request.
    std::vector<std::string> relayArgs(std::initializer_list<std::string> more = {}) {
        std::vector<std::string> args{"--relay-url", "http://relay.test", "--connect-to",
                                      relay_.connectTo("relay.test", 9001)};
        args.insert(args.end(), more);
        args.push_back("-");
        return args;
    }
    static json output(const testing::ProcessResult& result) {
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out, nullptr, false);
    }
    static std::string readReceipt(const std::string& reader) {
        return json{{"aps", {{"category", "ReadNotif"}, {"md5", "m1"}, {"read_by", reader},
                             {"alert", {{"title", "T"}, {"body", "B"}}}}}}
            .dump();
    }
    static std::string newMail() {
        return json{{"aps", {{"category", "NewMail"}, {"session", "acct"},
                             {"from", "Jane Doe <jane@example.com>"}, {"participants", ""},
                             {"token", "tok"}, {"uid", "7"},
                             {"alert", {{"title", "Jane Doe"}, {"body", "Hi"}}}}}}
            .dump();
    }

    testing::TempDir home_;
    testing::LoopbackServer relay_;
};

TEST_F(VontuNse, ARelayThatNeverAnswersIsDeliveredByTheExpiryWarning) {
    static std::mutex release;  // outlives the server's handler threads
    std::unique_lock hold(release);
    relay_.server().Post("/post/eml", [](const httplib::Request&, httplib::Response& res) {
        std::lock_guard wait(release);  // stalls until the test ends
        res.set_content("{}", "application/json");
    });
    auto result = output(nse(relayArgs({"--time-limit", "3", "--warning", "1"}), newMail()));
    EXPECT_EQ(result["via"], "expiry");
    EXPECT_GE(result["elapsed_ms"].get<double>(), 1500);
    EXPECT_TRUE(result["content"]["communication"].is_object());
    hold.unlock();
}

// The relay's answer is stored for the main app; from system 15 the sender's avatar is drawn, or
// taken as it is from the main app's cache.
TEST_F(VontuNse, DeliversNewMailStoresTheMessageAndFromSystem15UsesACachedAvatarElseDrawsOne) {
    relayAnswers(R"({"<7@x>": "raw source"})");
    const auto args = relayArgs();
    auto drawn = output(nse(args, newMail()));
    EXPECT_EQ(drawn["via"], "handler");
    EXPECT_EQ(drawn["content"]["sound"], (json{{"named", "notif.aiff"}}));
    const auto& sender = drawn["content"]["communication"]["sender"];
    EXPECT_EQ(sender["handle"]["value"], "jane@example.com");
    EXPECT_EQ(sender["displayName"], "Jane Doe");
    EXPECT_EQ(sender["customIdentifier"], "9E26471D35A78862C17E467D87CDDEDF");
    auto badge = platform::base64Decode(sender["image"]["data"].get<std::string>());
    ASSERT_TRUE(badge);
    ASSERT_GT(badge->size(), 8u);
    EXPECT_EQ(platform::toString(platform::Bytes(badge->begin() + 1, badge->begin() + 4)), "PNG");
    auto stored = defaults({"read", "group.ios.vontu", "EML_acct_<7@x>"});
    EXPECT_EQ(json::parse(stored.out, nullptr, false), (json{{"eml", "raw source"}}));

    // The main app's cache: the file is named by the MD5 of the address and "_Images".
    auto avatars = home_.path() / "groups" / "group.ios.vontu" / "Avatars";
    std::filesystem::create_directories(avatars);
    const std::string cached = "not even an image: used as it is";
    std::ofstream(avatars / "18405C77ABB15C778D2EF31F8564DC43.png", std::ios::binary) << cached;
    auto fromCache = output(nse(args, newMail()));
    EXPECT_EQ(fromCache["content"]["communication"]["sender"]["image"]["data"],
              platform::base64Encode(cached));

    for (const char* version : {"12.0", "14.0"}) {  // the mail path runs, without a communication
        auto before15 = output(nse(relayArgs({"--system-version", version}), newMail()));
        EXPECT_TRUE(before15["content"]["communication"].is_null()) << version;
        EXPECT_EQ(before15["content"]["body"], "Hi");
        EXPECT_EQ(before15["content"]["sound"], (json{{"named", "notif.aiff"}}));
    }
}

// An installation whose network module cannot be loaded goes on as without a network: the push
// is shown at once, and nothing is stored for the main app.
TEST_F(VontuNse, WithoutItsNetworkModuleNewMailIsDeliveredAtOnceWithNothingStored) {
    relayAnswers(R"({"<7@x>": "raw source"})");
    auto result = output(nse(relayArgs({"--warning", "20"}), newMail(),
                             {{"VONTU_URLSESSION_MODULE", "/nonexistent/network-module.so"}}));
    EXPECT_EQ(result["via"], "handler");
    EXPECT_TRUE(result["content"]["communication"].is_object());
    EXPECT_EQ(defaults({"read", "group.ios.vontu", "EML_acct_<7@x>"}).out, "");
}

TEST_F(VontuNse, ReadsARequestFileAndRefusesInputItCannotReadWithExit2) {
    testing::TempDir files;
    auto file = files.path() / "request.json";
    std::ofstream(file) << json{{"identifier", "r-1"},
                                {"content", {{"title", "T"}, {"body", "B"},
                                             {"userInfo", {{"aps", {{"category", "ReadNotif"},
                                                                    {"md5", "none"}}}}}}}}
                               .dump();

    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-"}, "not json"},
        {{"-"}, R"({"content": {"title": 5}})"},
        {{(files.path() / "missing.json").string()}, ""},
        {{"--time-limit", "soon", "-"}, "{}"},
        {{"--time-limit", "1e10", "-"}, "{}"},  // the deadline's clock would overflow
        {{"--warning", "nan", "-"}, "{}"},
        {{"--bundle-id", "../elsewhere", "-"}, "{}"},  // would leave the state root
        {{"--relay-url", "http://relay.test:8080", "-"}, "{}"},  // the port is always 9001
        {{"--serve", "-"}, ""},
        {{files.path().string()}, ""},  // a directory
        {{"-"}, R"({"aps": )" + std::string(100000, '[') + std::string(100000, ']') + "}"},
        {{"--connect-to", "nonsense", "-"}, "{}"},
    };
    for (const auto& [args, input] : cases) {
        auto result = nse(args, input);
        EXPECT_EQ(result.exitCode, 2) << input.substr(0, 60);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    // Nothing was stored: the state root has no defaults.
    EXPECT_FALSE(std::filesystem::exists(home_.path() / "preferences"));
    EXPECT_EQ(output(nse({file.string()}))["content"]["body"], "B");
}

TEST_F(VontuNse, ServeAnswersOneLinePerRequestInOneProcess) {
    defaults({"write", "group.ios.vontu", "Track_m1",
              R"({"title": "Read!", "body": "fallback", "read_by": {"bob@x": "Bob"}})"});
    auto result = nse({"--serve"}, readReceipt("bob@x") + "\n" + "garbage\n" + readReceipt("bob@x") + "\n");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::vector<json> lines;
    std::istringstream out(result.out);
    for (std::string line; std::getline(out, line);) lines.push_back(json::parse(line));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0]["content"]["body"], "Bob");
    EXPECT_TRUE(lines[1].contains("error"));
    // The first push removed the record; the second sees the pushed texts.
    EXPECT_EQ(lines[2]["content"]["body"], "B");
}

// The picture is drawn only when asked for: a push without one never loads the drawing module
// (the dynamic linker's own report says what was loaded).
TEST_F(VontuNse, DrawsAPreviewOnlyWhenAskedForInEitherStyleAndPerRequestWhenServing) {
    testing::TempDir pictures;
    const auto light = (pictures.path() / "light.png").string();
    const auto dark = (pictures.path() / "dark.png").string();
    const std::map<std::string, std::string> linkerReport{{"LD_DEBUG", "files"}};
    const std::string drawingModule = "libvontu_drawing_cairo.so";

    auto plain = nse({"-"}, readReceipt("bob@x"), linkerReport);
    EXPECT_FALSE(output(plain).contains("preview"));
    EXPECT_EQ(plain.err.find(drawingModule), std::string::npos);

    auto drawn = nse({"--preview", light, "-"}, readReceipt("bob@x"), linkerReport);
    EXPECT_EQ(output(drawn)["preview"], light);
    EXPECT_NE(drawn.err.find(drawingModule), std::string::npos);
    EXPECT_EQ(output(nse({"--preview-style", "dark", "--preview", dark, "-"}, readReceipt("b")))
                  ["preview"], dark);
    for (const auto& picture : {light, dark}) {
        std::ifstream file(picture, std::ios::binary);
        std::string header(24, '\0');
        file.read(header.data(), 24);
        EXPECT_EQ(header.substr(1, 3), "PNG") << picture;
        // Width 720 (360 points at 2x), big-endian at offset 16.
        EXPECT_EQ(header.substr(16, 4), std::string("\0\0\x02\xd0", 4)) << picture;
    }
    EXPECT_EQ(nse({"--preview-style", "sepia", "-"}, readReceipt("b")).exitCode, 2);

    const auto served = (pictures.path() / "served.png").string();
    auto request = json::parse(readReceipt("b"));
    request["preview"] = served;
    auto lines = nse({"--serve"}, request.dump() + "\n" + readReceipt("b") + "\n");
    EXPECT_NE(lines.out.find("\"preview\":\"" + served + "\""), std::string::npos) << lines.out;
    EXPECT_EQ(std::count(lines.out.begin(), lines.out.end(), '\n'), 2);
    EXPECT_TRUE(std::filesystem::exists(served));
}

}  // namespace
}  // namespace vontu
