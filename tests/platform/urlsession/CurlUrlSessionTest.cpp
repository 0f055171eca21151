#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
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
    return UrlRequest{std::move(url), std::move(method), {}, std::move(body), std::nullopt};
}

std::string fileContents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

fs::perms permissionsOf(const fs::path& path) { return fs::status(path).permissions() & fs::perms::all; }

// What a task's completion received, and on which thread.
struct Outcome {
    std::optional<Bytes> data;
    std::optional<fs::path> location;
    std::optional<HttpUrlResponse> response;
    std::optional<UrlError> error;
    std::thread::id thread = std::this_thread::get_id();
    std::optional<Code> code() const { return error ? std::optional(error->code) : std::nullopt; }
};

using WhileFileExists = std::function<void(const std::optional<fs::path>&)>;

class OutcomeRecorder : public testing::CompletionRecorder<Outcome> {
public:
    DataTaskCompletion dataCompletion() {
        return [record = completion()](auto data, auto response, auto error) { record({std::move(data), {}, std::move(response), std::move(error)}); };
    }
    // `whileFileExists` runs inside the completion, when the downloaded file is still there.
    DownloadTaskCompletion downloadCompletion(WhileFileExists whileFileExists = {}) {
        return [record = completion(), whileFileExists](auto location, auto response, auto error) {
            if (whileFileExists) whileFileExists(location);
            record({{}, std::move(location), std::move(response), std::move(error)});
        };
    }
    Outcome awaited() {
        auto outcome = await();
        if (!outcome) throw std::runtime_error("the task never completed");
        return *outcome;
    }
};

Outcome fetch(UrlSession& session, UrlRequest request) {
    OutcomeRecorder recorder;
    session.dataTask(std::move(request), recorder.dataCompletion());
    return recorder.awaited();
}

class CurlUrlSessionTest : public ::testing::Test {
protected:
    // Stalled handlers must be let go before the server can stop.
    ~CurlUrlSessionTest() override { gate.open(); }

    std::shared_ptr<UrlSession> makeSession(UrlSessionConfiguration config = {}, NetworkOptions network = {}) {
        return makeCurlUrlSession(config, network, downloads);
    }
    Outcome download(UrlSession& session, const std::string& path, WhileFileExists whileFileExists = {}) {
        OutcomeRecorder recorder;
        session.downloadTask(requestFor(server.url(path)), recorder.downloadCompletion(std::move(whileFileExists)));
        return recorder.awaited();
    }
    httplib::Request lastSeen() {
        std::lock_guard lock(seenMutex);
        return seen;
    }

    testing::Gate gate;
    std::mutex seenMutex;
    httplib::Request seen;
    testing::TempDir temp;
    fs::path downloads = temp.path() / "tmp" / "downloads";
    testing::LoopbackServer server{[this](httplib::Server& routes) { addRoutes(routes); }};

private:
    void addRoutes(httplib::Server& routes) {
        const auto echo = [this](Req request, Res response) {
            std::lock_guard lock(seenMutex);
            seen = request;
            response.set_content("ok", "text/plain");
        };
        routes.Get("/echo", echo).Post("/echo", echo).Put("/echo", echo).Delete("/echo", echo);
        routes.Get("/stall", [this](Req, Res response) {
            gate.arrive();
            gate.waitOpen();
            response.set_content("late", "text/plain");
        });
        // Headers and 2000 bytes of no announced length, then nothing until the gate opens. (Not
        // text: the server would compress text and hold the bytes back.)
        routes.Get("/stall-body", [this](Req, Res response) {
            response.set_chunked_content_provider("application/octet-stream", [this](std::size_t offset, httplib::DataSink& sink) {
                if (offset == 0) return sink.write(std::string(2000, 'p').data(), 2000);
                gate.waitOpen();
                sink.done();
                return true;
            });
        });
        // One byte every 100 ms: never idle, but never done either.
        routes.Get("/trickle", [this](Req, Res response) {
            response.set_chunked_content_provider("application/octet-stream", [this](std::size_t, httplib::DataSink& sink) {
                if (!gate.waitOpen(100ms)) return sink.write("x", 1);
                sink.done();
                return true;
            });
        });
        // A body of announced length, made as it is sent.
        routes.Get(R"(/sized/(\d+))", [](Req request, Res response) {
            response.set_content_provider(std::stoul(request.matches[1]), "application/octet-stream",
                                          [](std::size_t, std::size_t length, httplib::DataSink& sink) {
                                              return sink.write(std::string(length, 'x').data(), length);
                                          });
        });
        routes.Get("/loop", [](Req, Res response) { response.set_redirect("/loop"); });
        routes.Get("/redirect", [](Req, Res response) {
            response.set_header("X-First", "1");
            response.set_redirect("/echo");
        });
    }
};

TEST_F(CurlUrlSessionTest, SendsMethodsAndBodiesAsGiven) {
    const struct {
        std::string method;
        std::optional<Bytes> body;
        std::string contentLength;  // empty: no such header
    } cases[] = {
        {"GET", std::nullopt, ""},
        {"POST", Bytes{'a', 0, 'b', 0xFF, '\r', '\n'}, "6"},
        {"POST", std::nullopt, "0"},
        {"PUT", toBytes("{\"a\":1}"), "7"},
        {"DELETE", std::nullopt, ""},
    };
    auto session = makeSession();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        const Outcome outcome = fetch(*session, requestFor(server.url("/echo"), c.method, c.body));
        ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
        const auto request = lastSeen();
        EXPECT_EQ(request.method, c.method);
        EXPECT_EQ(request.body, toString(c.body.value_or(Bytes{})));
        EXPECT_EQ(request.get_header_value("Content-Length"), c.contentLength);
    }
}

TEST_F(CurlUrlSessionTest, RequestHeadersReplaceTheSessionsAndConnectToReachesTheHost) {
    UrlSessionConfiguration config;
    config.additionalHeaders = {{"Authorization", "Basic c2l0ZTprZXk="}, {"X-Session", "session"}};
    auto session = makeSession(config, NetworkOptions{{server.connectTo("tracking.example", 80)}, {}});
    UrlRequest request = requestFor("http://tracking.example/echo", "POST", toBytes("abc"));
    request.headers = {{"x-session", "request"}, {"Content-Type", "application/json"}, {"Content-Length", "999"}};
    const Outcome outcome = fetch(*session, request);
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    EXPECT_EQ(outcome.response->url, "http://tracking.example/echo");
    const auto received = lastSeen();
    EXPECT_EQ(received.get_header_value("Host"), "tracking.example");
    EXPECT_EQ(received.get_header_value("X-Session"), "request");
    EXPECT_EQ(received.get_header_value("Authorization"), "Basic c2l0ZTprZXk=");
    EXPECT_EQ(received.get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(received.get_header_value("Content-Length"), "3");

    // A body large enough that curl would otherwise ask for "100 Continue" first.
    const std::string large(2 * 1024 * 1024, 'L');
    request = requestFor(server.url("/echo"), "POST", toBytes(large));
    request.headers = {{"Content-Type", "application/octet-stream"}};  // the server caps form bodies
    EXPECT_EQ(fetch(*session, request).response.value().statusCode, 200);
    EXPECT_EQ(lastSeen().body.size(), large.size());
    EXPECT_FALSE(lastSeen().has_header("Expect"));
}

TEST_F(CurlUrlSessionTest, RedirectsEndWithTheFinalResponseOnTheSessionThread) {
    auto session = makeSession();
    const Outcome redirected = fetch(*session, requestFor(server.url("/redirect")));
    ASSERT_FALSE(redirected.error);
    EXPECT_EQ(redirected.response->statusCode, 200);
    EXPECT_EQ(redirected.response->url, server.url("/echo"));
    EXPECT_EQ(redirected.response->headerValue("Content-Type"), "text/plain");
    EXPECT_EQ(redirected.response->headerValue("X-First"), std::nullopt);
    EXPECT_EQ(redirected.data, toBytes("ok"));
    EXPECT_NE(redirected.thread, std::this_thread::get_id());
    EXPECT_EQ(fetch(*session, requestFor(server.url("/echo"))).thread, redirected.thread);
}

TEST_F(CurlUrlSessionTest, FailuresMapToErrorCodes) {
    const struct {
        std::string url;
        std::optional<Code> expected;  // absent: succeeds
    } cases[] = {
        {server.url("/loop"), Code::tooManyRedirects},
        {"127.0.0.1/echo", Code::badUrl},
        {"file:///etc/passwd", Code::badUrl},
        {server.url("/sized/1000"), std::nullopt},
        {server.url("/sized/1001"), Code::responseTooLarge},
        {server.url("/stall-body"), Code::responseTooLarge},
    };
    UrlSessionConfiguration config;
    config.maxRedirects = 3;
    config.maxResponseBytes = 1000;
    auto session = makeSession(config);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const Outcome outcome = fetch(*session, requestFor(c.url));
        ASSERT_EQ(outcome.code(), c.expected) << (outcome.error ? outcome.error->localizedDescription : "");
        if (!c.expected) continue;
        EXPECT_FALSE(outcome.error->localizedDescription.empty());
        EXPECT_FALSE(outcome.data);
    }
}

TEST_F(CurlUrlSessionTest, IdleAndWholeRequestTimeOuts) {
    const struct {
        const char* path;
        std::optional<double> idle, whole, requestTimeout;
        bool responseSeen;  // the failure came after the headers
        std::chrono::milliseconds atLeast;
    } cases[] = {
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
        UrlRequest request = requestFor(server.url(c.path));
        request.timeoutInterval = c.requestTimeout;
        const auto started = std::chrono::steady_clock::now();
        const Outcome outcome = fetch(*makeSession(config), request);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(outcome.code(), Code::timedOut);
        EXPECT_GE(elapsed, c.atLeast);
        EXPECT_LT(elapsed, 20s);
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
    const Outcome outcome = cancelled.awaited();
    EXPECT_EQ(outcome.code(), Code::cancelled);
    EXPECT_FALSE(outcome.response);
    EXPECT_EQ(dropped.calls(), 0) << "the other task runs on";
    session.reset();  // joins the session thread, which has delivered the cancellation by then
    ASSERT_EQ(dropped.calls(), 1);
    EXPECT_EQ(dropped.await(0s)->code(), Code::cancelled);
    task->cancel();  // after the end: harmless
    EXPECT_EQ(cancelled.calls(), 1);
}

TEST_F(CurlUrlSessionTest, InvalidatingCancelsOrFinishesRunningTasksAndRefusesLaterOnes) {
    for (const bool finish : {false, true}) {
        SCOPED_TRACE(finish ? "finishTasksAndInvalidate" : "invalidateAndCancel");
        auto session = makeSession();
        OutcomeRecorder first, second;
        session->dataTask(requestFor(server.url("/stall")), first.dataCompletion());
        session->dataTask(requestFor(server.url("/stall")), second.dataCompletion());
        ASSERT_TRUE(gate.waitForArrivals(finish ? 4 : 2));
        finish ? session->finishTasksAndInvalidate() : session->invalidateAndCancel();
        EXPECT_EQ(fetch(*session, requestFor(server.url("/echo"))).code(), Code::cancelled);
        if (finish) gate.open();
        for (OutcomeRecorder* running : {&first, &second}) {
            const Outcome outcome = running->awaited();
            EXPECT_EQ(outcome.code(), finish ? std::nullopt : std::optional(Code::cancelled));
            EXPECT_EQ(outcome.data, finish ? std::optional(toBytes("late")) : std::nullopt);
        }
    }
}

// A completion may start the next task on its own session and drop the last reference to it.
TEST_F(CurlUrlSessionTest, CompletionsMayChainTasksAndReleaseTheSession) {
    auto holder = std::make_shared<std::shared_ptr<UrlSession>>(makeSession());
    // Shared with the completions, so that the promise outlives their last touch of it.
    auto secondDone = std::make_shared<std::promise<std::string>>();
    auto future = secondDone->get_future();
    const std::string secondUrl = server.url("/redirect");
    (*holder)->dataTask(requestFor(server.url("/echo")), [holder, secondUrl, secondDone](auto, auto, auto) {
        (*holder)->dataTask(requestFor(secondUrl), [holder, secondDone](auto, auto response, auto) {
            holder->reset();  // the last reference goes away on the session's own thread
            secondDone->set_value(response ? response->url : "none");
        });
    });
    ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(future.get(), server.url("/echo"));
}

TEST_F(CurlUrlSessionTest, DownloadsGoToPrivateFilesThatLastOnlyThroughTheCompletion) {
    UrlSessionConfiguration config;
    config.maxResponseBytes = 100;
    auto session = makeSession(config);
    std::string contentsSeen;
    fs::perms permissionsSeen{};
    const Outcome named = download(*session, "/sized/13", [&](const auto& location) {
        if (!location) return;
        contentsSeen = fileContents(*location);
        permissionsSeen = permissionsOf(*location);
    });
    ASSERT_FALSE(named.error) << named.error->localizedDescription;
    EXPECT_EQ(named.location.value().parent_path(), downloads);
    EXPECT_EQ(contentsSeen, std::string(13, 'x'));
    EXPECT_EQ(permissionsSeen, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(named.response->url, server.url("/sized/13"));
    EXPECT_EQ(permissionsOf(downloads), fs::perms::owner_all);

    const Outcome tooLarge = download(*session, "/stall-body");
    EXPECT_EQ(tooLarge.code(), Code::responseTooLarge);
    EXPECT_FALSE(tooLarge.location);

    // A file the completion moves away is the caller's to keep.
    const fs::path kept = temp.path() / "kept";
    download(*session, "/sized/5", [&](const auto& location) {
        if (location) fs::rename(*location, kept);
    });
    EXPECT_EQ(fileContents(kept), "xxxxx");
    session.reset();  // the thread has ended: every completion has returned and been cleaned up after
    EXPECT_TRUE(fs::is_empty(downloads));
}

TEST(CurlUrlSessionTlsTest, VerifiesCertificatesAgainstTheExtraCa) {
    const auto openssl = testing::programOnPath("openssl");
    if (!openssl) GTEST_SKIP() << "the openssl tool is not installed";
    testing::TempDir temp;
    const auto certificates = testing::makeTestCertificates(*openssl, temp.path(), "thathost");
    ASSERT_TRUE(certificates);
    testing::BasicLoopbackServer<httplib::SSLServer> server(
        [](httplib::Server& routes) { routes.Get("/hello", [](Req, Res response) { response.set_content("secure", "text/plain"); }); },
        certificates->serverCertificate.c_str(), certificates->serverKey.c_str());
    const struct {
        fs::path extraCaFile;
        std::optional<Code> expected;  // absent: succeeds
    } cases[] = {
        {certificates->caCertificate, std::nullopt},
        {{}, Code::secureConnectionFailed},
        {temp.path() / "missing.pem", Code::other},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extraCaFile);
        const NetworkOptions network{{server.connectTo("thathost", server.port())}, c.extraCaFile};
        const std::string url = "https://thathost:" + std::to_string(server.port()) + "/hello";
        const Outcome outcome = fetch(*makeCurlUrlSession({}, network, temp.path() / "downloads"), requestFor(url));
        ASSERT_EQ(outcome.code(), c.expected) << (outcome.error ? outcome.error->localizedDescription : "no error");
        EXPECT_EQ(outcome.data, c.expected ? std::nullopt : std::optional(toBytes("secure")));
    }
}

}  // namespace
}  // namespace vontu::platform::linux_host
