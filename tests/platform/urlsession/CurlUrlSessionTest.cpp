#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <thread>

#include "platform/linux/CurlUrlSession.hpp"
#include "tests/support/CompletionRecorder.hpp"
#include "tests/support/Gate.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Code = UrlError::Code;
using Req = const httplib::Request&;
using Res = httplib::Response&;

UrlRequest requestFor(std::string url, std::string method = "GET", std::optional<Bytes> body = std::nullopt) {
    return UrlRequest{std::move(url), std::move(method), {}, std::move(body), std::nullopt, std::nullopt};
}

fs::perms permissionsOf(const fs::path& path) { return fs::status(path).permissions() & fs::perms::all; }

// What a task's completion received.
struct Outcome {
    std::optional<Bytes> data;
    std::optional<fs::path> location;
    std::optional<HttpUrlResponse> response;
    std::optional<UrlError> error;
    std::optional<Code> code() const { return error ? std::optional(error->code) : std::nullopt; }
};

class OutcomeRecorder : public testing::CompletionRecorder<Outcome> {
public:
    DataTaskCompletion dataCompletion() {
        return [record = completion()](auto data, auto response, auto error) { record({std::move(data), {}, std::move(response), std::move(error)}); };
    }
};

Outcome fetch(UrlSession& session, UrlRequest request) {
    OutcomeRecorder recorder;
    session.dataTask(std::move(request), recorder.dataCompletion());
    return recorder.await().value();
}

class CurlUrlSessionTest : public ::testing::Test {
protected:
    ~CurlUrlSessionTest() override { gate.open(); }  // stalled handlers must go before the server stops

    std::shared_ptr<UrlSession> makeSession(UrlSessionConfiguration config = {}, NetworkOptions network = {}) {
        return makeCurlUrlSession(config, network, downloads);
    }
    httplib::Request lastSeen() { std::lock_guard lock(seenMutex); return seen; }

    testing::Gate gate;
    std::mutex seenMutex;
    httplib::Request seen;
    testing::TempDir temp;
    fs::path downloads = temp.path() / "tmp" / "downloads";
    testing::LoopbackServer server{[this](httplib::Server& routes) {
        const auto echo = [this](Req request, Res response) {
            std::lock_guard lock(seenMutex);
            seen = request;
            response.set_content("ok", "text/plain");
        };
        routes.Get("/echo", echo).Post("/echo", echo);
        routes.Get("/stall", [this](Req, Res response) {
            gate.arrive();
            gate.waitOpen();
            response.set_content("late", "text/plain");
        });
        // 2000 bytes of no announced length, then /stall-body sends nothing until the gate opens and
        // /trickle a byte every 100 ms. (Not text: the server would compress text and hold it back.)
        const auto stream = [this](Req request, Res response) {
            const auto pause = request.path == "/trickle" ? 100ms : 60000ms;
            response.set_chunked_content_provider("application/octet-stream", [this, pause](std::size_t offset, httplib::DataSink& sink) {
                if (offset == 0) return sink.write(std::string(2000, 'p').data(), 2000);
                if (!gate.waitOpen(pause)) return sink.write("x", 1);
                sink.done();
                return true;
            });
        };
        routes.Get("/stall-body", stream).Get("/trickle", stream);
        routes.Get(R"(/sized/(\d+))", [](Req request, Res response) {
            response.set_content(std::string(std::stoul(request.matches[1]), 'x'), "application/octet-stream");
        });
        routes.Get("/loop", [](Req, Res response) { response.set_redirect("/loop"); });
        routes.Get("/redirect", [](Req, Res response) { response.set_redirect("/echo"); });
        routes.Get("/big-redirect", [](Req, Res response) {  // its body is never read
            response.set_content(std::string(5000, 'r'), "application/octet-stream");
            response.set_redirect("/sized/5");
        });
    }};
};

TEST_F(CurlUrlSessionTest, RequestHeadersReplaceTheSessionsAndConnectToReachesTheHost) {
    UrlSessionConfiguration config;
    config.additionalHeaders = {{"Authorization", "Basic c2l0ZTprZXk="}, {"X-Session", "session"}};
    auto session = makeSession(config, NetworkOptions{{server.connectTo("tracking.example", 80)}, {}});
    UrlRequest request = requestFor("http://tracking.example/echo", "POST", Bytes{'a', 0, 0xFF});
    request.headers = {{"x-session", "request"}, {"Content-Type", "application/json"}, {"Content-Length", "999"}};
    const Outcome outcome = fetch(*session, request);
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    const auto received = lastSeen();
    EXPECT_EQ(received.get_header_value("Host"), "tracking.example");
    EXPECT_EQ(received.get_header_value("X-Session"), "request");
    EXPECT_EQ(received.get_header_value("Authorization"), "Basic c2l0ZTprZXk=");
    EXPECT_EQ(received.get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(received.body, std::string("a\0\xff", 3));
}

TEST_F(CurlUrlSessionTest, FailuresMapToErrorCodes) {
    const std::pair<std::string, std::optional<Code>> cases[] = {
        {server.url("/loop"), Code::tooManyRedirects},
        {"127.0.0.1/echo", Code::badUrl},
        {"file:///etc/passwd", Code::badUrl},
        {server.url("/sized/1000"), std::nullopt},
        {server.url("/sized/1001"), Code::responseTooLarge},
        {server.url("/big-redirect"), std::nullopt},
        {server.url("/stall-body"), Code::responseTooLarge},
    };
    UrlSessionConfiguration config;
    config.maxRedirects = 3;
    config.maxResponseBytes = 1000;
    auto session = makeSession(config);
    for (const auto& [url, expected] : cases) {
        SCOPED_TRACE(url);
        const Outcome outcome = fetch(*session, requestFor(url));
        EXPECT_EQ(outcome.code(), expected) << (outcome.error ? outcome.error->localizedDescription : "");
        EXPECT_EQ(outcome.data.has_value(), !expected);
    }
}

TEST_F(CurlUrlSessionTest, IdleAndWholeRequestTimeOuts) {
    // responseSeen: the failure came after the headers.
    const struct { const char* path; std::optional<double> idle, whole, requestTimeout; bool responseSeen; std::chrono::milliseconds atLeast; } cases[] = {
        {"/stall", 60, std::nullopt, 0.5, false, 400ms},  // the request's own interval wins
        {"/stall-body", 0.5, std::nullopt, std::nullopt, true, 400ms},
        // Bytes keep coming, so the idle limit never strikes; the whole-request limit does.
        {"/trickle", 0.5, 1.5, std::nullopt, true, 1400ms},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        UrlSessionConfiguration config;
        config.requestTimeout = c.idle;
        config.resourceTimeout = c.whole;
        const UrlRequest request{server.url(c.path), "GET", {}, std::nullopt, c.requestTimeout, std::nullopt};
        const auto started = std::chrono::steady_clock::now();
        const Outcome outcome = fetch(*makeSession(config), request);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(outcome.code(), Code::timedOut);
        EXPECT_GE(elapsed, c.atLeast);
        EXPECT_EQ(outcome.response.has_value(), c.responseSeen);
    }
}

TEST_F(CurlUrlSessionTest, CancellingATaskOrDroppingTheSessionEndsStalledTasksOnce) {
    auto session = makeSession();
    OutcomeRecorder cancelled, dropped;
    auto task = session->dataTask(requestFor(server.url("/stall")), cancelled.dataCompletion());
    session->dataTask(requestFor(server.url("/stall")), dropped.dataCompletion());
    ASSERT_TRUE(gate.waitForArrivals(2));
    task->cancel();
    task->cancel();
    EXPECT_EQ(cancelled.await().value().code(), Code::cancelled);
    EXPECT_EQ(dropped.calls(), 0) << "the other task runs on";
    session.reset();  // joins the session thread, which has delivered the cancellation by then
    ASSERT_EQ(dropped.calls(), 1);
    EXPECT_EQ(dropped.await(0s)->code(), Code::cancelled);
    EXPECT_EQ(cancelled.calls(), 1);
}

TEST_F(CurlUrlSessionTest, InvalidatingCancelsOrFinishesRunningTasksAndRefusesLaterOnes) {
    for (const bool finish : {false, true}) {
        SCOPED_TRACE(finish ? "finishTasksAndInvalidate" : "invalidateAndCancel");
        auto session = makeSession();
        OutcomeRecorder running;
        session->dataTask(requestFor(server.url("/stall")), running.dataCompletion());
        ASSERT_TRUE(gate.waitForArrivals(finish ? 2 : 1));
        finish ? session->finishTasksAndInvalidate() : session->invalidateAndCancel();
        EXPECT_EQ(fetch(*session, requestFor(server.url("/echo"))).code(), Code::cancelled);
        if (finish) gate.open();
        const Outcome outcome = running.await().value();
        EXPECT_EQ(outcome.code(), finish ? std::nullopt : std::optional(Code::cancelled));
        EXPECT_EQ(outcome.data, finish ? std::optional(toBytes("late")) : std::nullopt);
    }
}

// Entries of a /proc/self directory: the process's threads, or its open descriptors.
std::size_t entriesOf(const char* directory) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory), {}));
}

// The push library keeps every rich push's client, and so its sessions, for the rest of the
// process: once invalidated and idle, a session must give its thread and connections back.
TEST_F(CurlUrlSessionTest, AnInvalidatedSessionGivesBackItsThreadAndConnectionsOnceIdle) {
    // The server starts its threads as it starts listening: have it answer once before counting.
    ASSERT_EQ(fetch(*makeSession(), requestFor(server.url("/echo"))).data, toBytes("ok"));
    const std::size_t threads = entriesOf("/proc/self/task");
    const std::size_t descriptors = entriesOf("/proc/self/fd");
    const auto backToStart = [&] {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        // At most: the server may still have been closing the first answer's connection.
        while (entriesOf("/proc/self/task") > threads || entriesOf("/proc/self/fd") > descriptors) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    };
    auto session = makeSession();
    ASSERT_EQ(fetch(*session, requestFor(server.url("/echo"))).data, toBytes("ok"));
    EXPECT_GT(entriesOf("/proc/self/task"), threads);
    session->finishTasksAndInvalidate();
    EXPECT_TRUE(backToStart());
    // Later tasks are still answered, on a thread of the session's, which goes again.
    EXPECT_EQ(fetch(*session, requestFor(server.url("/echo"))).code(), Code::cancelled);
    EXPECT_TRUE(backToStart());
}

// A completion may start the next task on its own session and drop the last reference to it.
TEST_F(CurlUrlSessionTest, CompletionsMayChainTasksAndReleaseTheSession) {
    auto holder = std::make_shared<std::shared_ptr<UrlSession>>(makeSession());
    testing::CompletionRecorder<std::string> secondDone;
    const auto second = [holder, done = secondDone.completion()](auto, auto response, auto) {
        holder->reset();  // the last reference goes away on the session's own thread
        done(response ? response->url : "none");
    };
    (*holder)->dataTask(requestFor(server.url("/echo")), [holder, second, url = server.url("/redirect")](auto, auto, auto) {
        (*holder)->dataTask(requestFor(url), second);
    });
    EXPECT_EQ(secondDone.await(), server.url("/echo"));
}

TEST_F(CurlUrlSessionTest, DownloadsGoToPrivateFilesThatLastOnlyThroughTheCompletion) {
    UrlSessionConfiguration config;
    config.maxResponseBytes = 100;
    auto session = makeSession(config);
    // `whileFileExists` runs inside the completion, when the downloaded file is still there.
    const auto download = [&](const std::string& path, std::function<void(const std::optional<fs::path>&)> whileFileExists) {
        OutcomeRecorder recorder;
        session->downloadTask(requestFor(server.url(path)), [record = recorder.completion(), whileFileExists](auto location, auto response, auto error) {
            whileFileExists(location);
            record({{}, std::move(location), std::move(response), std::move(error)});
        });
        return recorder.await().value();
    };
    const fs::path kept = temp.path() / "kept";
    fs::perms permissionsSeen{};
    // A file the completion moves away is the caller's to keep.
    const Outcome named = download("/sized/13", [&](const auto& location) {
        if (!location) return;
        permissionsSeen = permissionsOf(*location);
        fs::rename(*location, kept);
    });
    ASSERT_FALSE(named.error) << named.error->localizedDescription;
    EXPECT_EQ(named.location.value().parent_path(), downloads);
    EXPECT_EQ(fs::file_size(kept), 13u);
    EXPECT_EQ(permissionsSeen, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(permissionsOf(downloads), fs::perms::owner_all);

    EXPECT_EQ(download("/stall-body", [](const auto& location) { EXPECT_FALSE(location); }).code(), Code::responseTooLarge);
    download("/sized/5", [](const auto&) {});
    session.reset();  // the thread has ended: every completion has returned and been cleaned up after
    EXPECT_TRUE(fs::is_empty(downloads));
}

// The last bytes of a download reach its file when the file is closed: a close that fails (here
// past the file-size limit, lowered for the length of the test) fails the download, and no file
// is handed over.
TEST_F(CurlUrlSessionTest, ADownloadWhoseLastBytesCannotBeWrittenFails) {
    struct FileSizeLimit {
        explicit FileSizeLimit(rlim_t bytes) {
            ::getrlimit(RLIMIT_FSIZE, &before);
            const rlimit lowered{bytes, before.rlim_max};
            ::setrlimit(RLIMIT_FSIZE, &lowered);
            signalBefore = ::signal(SIGXFSZ, SIG_IGN);  // a write past it fails instead of killing
        }
        ~FileSizeLimit() {
            ::setrlimit(RLIMIT_FSIZE, &before);
            ::signal(SIGXFSZ, signalBefore);
        }
        rlimit before{};
        sighandler_t signalBefore{};
    };
    auto session = makeSession();
    OutcomeRecorder recorder;
    {
        const FileSizeLimit limit(8192);
        session->downloadTask(requestFor(server.url("/sized/9000")), [record = recorder.completion()](auto location, auto response, auto error) {
            record({{}, std::move(location), std::move(response), std::move(error)});
        });
        const auto outcome = recorder.await();
        ASSERT_TRUE(outcome);
        EXPECT_EQ(outcome->code(), Code::cannotWriteFile);
        EXPECT_FALSE(outcome->location);
    }
}

TEST(CurlUrlSessionTlsTest, RefusesCertificatesThatTheExtraCaDoesNotVouchFor) {
    const auto openssl = testing::programOnPath("openssl");
    if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
    testing::TempDir temp;
    const auto certificates = testing::makeTestCertificates(*openssl, temp.path(), "thathost");
    ASSERT_TRUE(certificates);
    testing::BasicLoopbackServer<httplib::SSLServer> server({}, certificates->serverCertificate.c_str(),
                                                            certificates->serverKey.c_str());
    // Trusted, the same server answers: see the tracking client's tests.
    for (const auto& [extraCaFile, expected] : {std::pair{fs::path(), Code::secureConnectionFailed},
                                                std::pair{temp.path() / "missing.pem", Code::other}}) {
        SCOPED_TRACE(extraCaFile);
        const NetworkOptions network{{server.connectTo("thathost", server.port())}, extraCaFile};
        const std::string url = "https://thathost:" + std::to_string(server.port()) + "/hello";
        EXPECT_EQ(fetch(*makeCurlUrlSession({}, network, temp.path() / "downloads"), requestFor(url)).code(), expected);
    }
}

}  // namespace
}  // namespace vontu::platform::linux_host
