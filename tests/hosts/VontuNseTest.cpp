// vontu-nse run as a process, as the system runs the extension.

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <nlohmann/json.hpp>

#include "platform/Crypto.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/Process.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"

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

// A name lookup that never ends (a name server that takes the question and never answers, in a
// network and mount namespace of the test's own, where the system's resolver is pointed at it)
// does not hold the process past its time limit.
TEST_F(VontuNse, ExitsAtItsTimeLimitWhileANameLookupIsPending) {
    const auto unshare = testing::programOnPath("unshare");
    if (!unshare || ::geteuid() != 0) GTEST_SKIP() << "needs unshare and root for a namespace";
    std::ofstream(home_.path() / "resolv.conf") << "nameserver 127.0.0.1\noptions timeout:20\n";
    std::ofstream(home_.path() / "push.json") << newMail();
    const std::string silentNameServer = R"(
import socket, subprocess, sys, time
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 53))  # takes every question, answers none
start = time.monotonic()
exit_code = subprocess.run(sys.argv[1:]).returncode
print(round(time.monotonic() - start, 3), file=sys.stderr)
sys.exit(exit_code)
)";
    const std::string script =
        "ip link set lo up && mount --bind \"$1\" /etc/resolv.conf && shift && "
        "exec python3 -c \"$0\" \"$@\"";
    auto result = testing::runProcess(
        *unshare, {"--mount", "--net", "sh", "-c", script, silentNameServer,
                   (home_.path() / "resolv.conf").string(),
                   testing::builtProgram("hosts/vontu-nse").string(), "--home",
                   home_.path().string(), "--relay-url", "https://relay.stalled.example",
                   "--time-limit", "2", "--warning", "1",
                   (home_.path() / "push.json").string()});
    if (result.exitCode != 0 && result.out.empty()) GTEST_SKIP() << "no namespace: " << result.err;
    EXPECT_EQ(output(result)["via"], "expiry");
    // The last line is the process's wall time: the limit, with room for a slow machine, and
    // far from the lookup's twenty seconds.
    const auto lastLine = result.err.substr(result.err.rfind('\n', result.err.size() - 2) + 1);
    EXPECT_LT(std::stod(lastLine), 6.0) << result.err;
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

// A file that exists but cannot be read is taken as no file; a FIFO never holds the push up.
TEST_F(VontuNse, AnAvatarThatCannotBeReadGivesTheInitialsBadgeAsAMissingOneDoes) {
    relayAnswers(R"({"<7@x>": "raw source"})");
    const auto senderImage = [&] {
        auto result = output(nse(relayArgs({"--warning", "20"}), newMail()));
        EXPECT_EQ(result["via"], "handler");
        return result["content"]["communication"]["sender"]["image"]["data"];
    };
    const json badge = senderImage();
    ASSERT_TRUE(badge.is_string());
    const auto avatars = home_.path() / "groups" / "group.ios.vontu" / "Avatars";
    const auto avatar = avatars / "18405C77ABB15C778D2EF31F8564DC43.png";
    std::filesystem::create_directories(avatars);
    const std::pair<const char*, std::function<bool()>> unreadable[] = {
        {"directory", [&] { return std::filesystem::create_directory(avatar); }},
        {"FIFO", [&] { return ::mkfifo(avatar.c_str(), 0600) == 0; }},
        // The owner-only bits keep nobody but root out.
        {"no permission", [&] { std::ofstream(avatar) << "secret"; return ::geteuid() != 0 && ::chmod(avatar.c_str(), 0) == 0; }},
    };
    for (const auto& [kind, make] : unreadable) {
        SCOPED_TRACE(kind);
        std::filesystem::remove_all(avatar);
        if (!make()) continue;
        EXPECT_TRUE(senderImage() == badge);  // (no base64 screens in the failure)
    }
}

// Holds the write lock of a defaults suite's database, as the main app does while it writes.
class DefaultsWriteLock {
public:
    explicit DefaultsWriteLock(const std::filesystem::path& database) {
        EXPECT_EQ(sqlite3_open(database.c_str(), &db_), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~DefaultsWriteLock() {
        release();
        sqlite3_close(db_);
    }
    DefaultsWriteLock(const DefaultsWriteLock&) = delete;
    DefaultsWriteLock& operator=(const DefaultsWriteLock&) = delete;
    void release() { sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr); }

private:
    sqlite3* db_ = nullptr;
};

// A write waits 5 seconds for the lock; the fetched message is tried again until the expiry
// warning, and then the content goes without it and a line says so.
TEST_F(VontuNse, AMessageSourceIsStoredOnceTheMainAppLetsGoOfTheSharedDefaultsWithinThePushsTime) {
    using namespace std::chrono_literals;
    static std::promise<void> fetched;  // outlives the server's handler threads
    relay_.server().Post("/post/eml", [](const httplib::Request&, httplib::Response& res) {
        try { fetched.set_value(); } catch (const std::future_error&) {}  // the first fetch only
        res.set_content(R"({"<7@x>": "raw source"})", "application/json");
    });
    ASSERT_EQ(defaults({"write", "group.ios.vontu", "DeviceID", R"("d")"}).exitCode, 0);
    DefaultsWriteLock mainApp(home_.path() / "preferences" / "group.ios.vontu.sqlite");
    const auto stored = [&] { return defaults({"read", "group.ios.vontu", "EML_acct_<7@x>"}).out; };

    auto held = nse(relayArgs({"--time-limit", "8", "--warning", "1"}), newMail());
    EXPECT_EQ(output(held)["via"], "expiry");
    EXPECT_NE(held.err.find("Could not store EML_acct_<7@x>: the shared defaults could not be written"),
              std::string::npos) << held.err;
    EXPECT_EQ(stored(), "");

    fetched = {};
    auto fetchedAgain = fetched.get_future();
    auto released = std::async(std::launch::async, [&] { return nse(relayArgs(), newMail()); });
    ASSERT_EQ(fetchedAgain.wait_for(60s), std::future_status::ready);
    // Past one write's wait, so that the first attempt has failed (unless the extension was
    // slower still to get to it, when the test shows less but still passes).
    std::this_thread::sleep_for(7s);
    mainApp.release();
    EXPECT_EQ(output(released.get())["via"], "handler");
    EXPECT_EQ(json::parse(stored(), nullptr, false), (json{{"eml", "raw source"}}));
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

// The token and the user's ids never travel in clear, and a clear answer is never stored: a
// redirect from the https relay to plain http is not followed.
TEST_F(VontuNse, ARedirectFromTheSecureRelayToPlainHttpIsNotFollowed) {
    const auto openssl = testing::programOnPath("openssl");
    if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
    testing::TempDir directory;
    const auto certificates = testing::makeTestCertificates(*openssl, directory.path(), "relay.test");
    ASSERT_TRUE(certificates);
    testing::BasicLoopbackServer<httplib::SSLServer> secureRelay(
        [](httplib::Server& routes) {  // 307 repeats the POST, body and all
            routes.Post("/post/eml", [](const httplib::Request&, httplib::Response& res) {
                res.set_redirect("http://clear.test:9001/post/eml", 307);
            });
        },
        certificates->serverCertificate.c_str(), certificates->serverKey.c_str());
    std::atomic<int> clearRequests = 0;
    relay_.server().Post("/post/eml", [&clearRequests](const httplib::Request&, httplib::Response& res) {
        ++clearRequests;
        res.set_content(R"({"<7@x>": "clear source"})", "application/json");
    });
    auto result = output(nse({"--relay-url", "https://relay.test", "--cacert", certificates->caCertificate.string(),
                              "--connect-to", secureRelay.connectTo("relay.test", 9001),
                              "--connect-to", relay_.connectTo("clear.test", 9001), "--warning", "20", "-"},
                             newMail()));
    EXPECT_EQ(result["via"], "handler");
    EXPECT_EQ(clearRequests, 0);
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
        {{"--relay-url", "ftp://relay.test", "-"}, "{}"},
        {{"--relay-url", "https://[::1]/", "-"}, "{}"},
        {{"--serve", "-"}, ""},
        {{files.path().string()}, ""},  // a directory
        {{"-"}, R"({"aps": )" + std::string(100000, '[') + std::string(100000, ']') + "}"},
        {{"--connect-to", "nonsense", "-"}, "{}"},
        {{"--connect-to", "a:1:[::1:2", "-"}, "{}"},
        {{"--system-version", "17.0.1.2", "-"}, "{}"},
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

// Receipts of several readers of one message, arriving at once in as many processes, each take
// their reader off the record: the last one removes it.
TEST_F(VontuNse, ReadReceiptsArrivingAtOnceAllTakeEffect) {
    constexpr int readers = 6;
    json record = {{"title", "Read!"}, {"body", "fallback"}, {"read_by", json::object()}};
    for (int r = 0; r < readers; ++r) record["read_by"]["r" + std::to_string(r)] = "R" + std::to_string(r);
    ASSERT_EQ(defaults({"write", "group.ios.vontu", "Track_m1", record.dump()}).exitCode, 0);
    std::vector<std::future<testing::ProcessResult>> receipts;
    for (int r = 0; r < readers; ++r) {
        receipts.push_back(std::async(std::launch::async, [this, r] {
            return nse({"-"}, readReceipt("r" + std::to_string(r)));
        }));
    }
    for (int r = 0; r < readers; ++r) {
        EXPECT_EQ(output(receipts[r].get())["content"]["body"], "R" + std::to_string(r));
    }
    EXPECT_NE(defaults({"read", "group.ios.vontu", "Track_m1"}).exitCode, 0);  // removed
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
