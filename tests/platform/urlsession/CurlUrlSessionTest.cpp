#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <sstream>

#include "platform/linux/CurlUrlSession.hpp"
#include "tests/support/CompletionRecorder.hpp"
#include "tests/support/Gate.hpp"
#include "tests/support/LoopbackServer.hpp"
#include "tests/support/RawTcpServer.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestCertificates.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Code = UrlError::Code;

UrlRequest requestFor(std::string url, std::string method = "GET", std::optional<Bytes> body = std::nullopt) {
    UrlRequest request;
    request.url = std::move(url);
    request.method = std::move(method);
    request.body = std::move(body);
    return request;
}

std::string fileContents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

fs::perms permissionsOf(const fs::path& path) { return fs::status(path).permissions() & fs::perms::all; }

// What a task's completion received, and on which thread.
struct Outcome {
    std::optional<Bytes> data;
    std::optional<fs::path> location;
    std::optional<HttpUrlResponse> response;
    std::optional<UrlError> error;
    std::thread::id thread = std::this_thread::get_id();
};

class OutcomeRecorder : public testing::CompletionRecorder<Outcome> {
public:
    DataTaskCompletion dataCompletion() {
        return [record = completion()](auto data, auto response, auto error) {
            record(Outcome{std::move(data), std::nullopt, std::move(response), std::move(error)});
        };
    }
    // `whileFileExists` runs inside the completion, when the downloaded file is still there.
    DownloadTaskCompletion downloadCompletion(std::function<void(const std::optional<fs::path>&)> whileFileExists = {}) {
        return [record = completion(), whileFileExists](auto location, auto response, auto error) {
            if (whileFileExists) whileFileExists(location);
            record(Outcome{std::nullopt, std::move(location), std::move(response), std::move(error)});
        };
    }
};

class CurlUrlSessionTest : public ::testing::Test {
protected:
    // Stalled handlers must be let go before the server can stop.
    ~CurlUrlSessionTest() override { gate.open(); }

    std::shared_ptr<UrlSession> makeSession(UrlSessionConfiguration config = {}, NetworkOptions network = {}) {
        return makeCurlUrlSession(config, network, downloads);
    }

    // Runs one data task to its end.
    Outcome fetch(UrlSession& session, UrlRequest request) {
        OutcomeRecorder recorder;
        session.dataTask(std::move(request), recorder.dataCompletion());
        auto outcome = recorder.await();
        if (!outcome) throw std::runtime_error("the task never completed");
        return *outcome;
    }

    // The last request the server saw at /echo.
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
        const auto echo = [this](const httplib::Request& request, httplib::Response& response) {
            std::lock_guard lock(seenMutex);
            seen = request;
            response.set_content("ok", "text/plain");
        };
        routes.Get("/echo", echo).Post("/echo", echo).Put("/echo", echo).Delete("/echo", echo).Patch("/echo", echo);
        routes.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
            response.status = std::stoi(request.matches[1]);
            response.set_content("status " + std::string(request.matches[1]), "text/plain");
        });
        routes.Get("/stall", [this](const httplib::Request&, httplib::Response& response) {
            gate.arrive();
            gate.waitOpen();
            response.set_content("late", "text/plain");
        });
        // Headers and a few bytes, then nothing until the gate opens. (Not text: the server would
        // compress text and hold the bytes back.)
        routes.Get("/stall-body", [this](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("application/octet-stream", [this](std::size_t offset, httplib::DataSink& sink) {
                if (offset == 0) return sink.write("partial", 7);
                gate.waitOpen();
                sink.done();
                return true;
            });
        });
        // One byte every 100 ms: never idle, but never done either.
        routes.Get("/trickle", [this](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("application/octet-stream", [this](std::size_t, httplib::DataSink& sink) {
                if (gate.waitOpen(100ms)) {
                    sink.done();
                    return true;
                }
                return sink.write("x", 1);
            });
        });
        // A body of announced length, made as it is sent.
        routes.Get(R"(/sized/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content_provider(std::stoul(request.matches[1]), "application/octet-stream",
                                          [](std::size_t, std::size_t length, httplib::DataSink& sink) {
                                              const std::string chunk(std::min<std::size_t>(length, 64 * 1024), 'x');
                                              return sink.write(chunk.data(), chunk.size());
                                          });
        });
        // A body without announced length that would go on for a gigabyte.
        routes.Get("/endless", [](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("application/octet-stream", [](std::size_t offset, httplib::DataSink& sink) {
                static const std::string chunk(64 * 1024, 'z');
                if (offset >= (1u << 30)) {
                    sink.done();
                    return true;
                }
                return sink.write(chunk.data(), chunk.size());
            });
        });
        routes.Get("/loop", [](const httplib::Request&, httplib::Response& response) { response.set_redirect("/loop"); });
        routes.Get("/redirect", [](const httplib::Request&, httplib::Response& response) {
            response.set_header("X-First", "1");
            response.set_redirect("/final");
        });
        routes.Get("/final", [](const httplib::Request&, httplib::Response& response) {
            response.set_header("X-Final", "1");
            response.set_content("final", "text/plain");
        });
        // A file, named through Content-Disposition when the query gives a name.
        routes.Get("/files/.*", [](const httplib::Request& request, httplib::Response& response) {
            if (request.has_param("name")) {
                response.set_header("Content-Disposition", "attachment; filename*=UTF-8''" + request.get_param_value("name"));
            }
            response.set_content("file contents", "application/pdf");
        });
    }
};

TEST_F(CurlUrlSessionTest, SendsMethodsAndBodiesAsGiven) {
    struct Case {
        std::string method;
        std::optional<Bytes> body;
        std::string contentLength;  // empty: no such header
    };
    const Case cases[] = {
        {"GET", std::nullopt, ""},
        {"POST", Bytes{'a', 0, 'b', 0xFF, '\r', '\n'}, "6"},
        {"POST", Bytes{}, "0"},
        {"POST", std::nullopt, "0"},
        {"PUT", toBytes("{\"a\":1}"), "7"},
        {"DELETE", std::nullopt, ""},
        {"PATCH", toBytes("patch"), "5"},
    };
    auto session = makeSession();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.method);
        const Outcome outcome = fetch(*session, requestFor(server.url("/echo"), c.method, c.body));
        ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
        EXPECT_EQ(outcome.data, toBytes("ok"));
        const auto request = lastSeen();
        EXPECT_EQ(request.method, c.method);
        EXPECT_EQ(request.body, toString(c.body.value_or(Bytes{})));
        EXPECT_EQ(request.get_header_value("Content-Length"), c.contentLength);
        EXPECT_FALSE(request.has_header("Expect"));
    }
}

TEST_F(CurlUrlSessionTest, RequestHeadersReplaceTheSessionsAndConnectToReachesTheHost) {
    UrlSessionConfiguration config;
    config.additionalHeaders = {{"Authorization", "Basic c2l0ZTprZXk="}, {"X-Session", "session"}};
    NetworkOptions network;
    network.connectTo = {server.connectTo("tracking.example", 80)};
    auto session = makeSession(config, network);
    UrlRequest request = requestFor("http://tracking.example/echo", "POST", toBytes("abc"));
    request.headers = {{"x-session", "request"}, {"Content-Type", "application/json"}, {"Content-Length", "999"}};

    const Outcome outcome = fetch(*session, request);
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    EXPECT_EQ(outcome.response->url, "http://tracking.example/echo");
    const auto received = lastSeen();
    EXPECT_EQ(received.get_header_value("Host"), "tracking.example");
    EXPECT_EQ(received.get_header_value_count("X-Session"), 1u);
    EXPECT_EQ(received.get_header_value("X-Session"), "request");
    EXPECT_EQ(received.get_header_value("Authorization"), "Basic c2l0ZTprZXk=");
    EXPECT_EQ(received.get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(received.get_header_value("Content-Length"), "3");
    EXPECT_EQ(received.body, "abc");

    // A body large enough that curl would otherwise ask for "100 Continue" first.
    const std::string large(2 * 1024 * 1024, 'L');
    UrlRequest largeRequest = requestFor(server.url("/echo"), "POST", toBytes(large));
    largeRequest.headers = {{"Content-Type", "application/octet-stream"}};
    const Outcome largeOutcome = fetch(*session, largeRequest);
    ASSERT_FALSE(largeOutcome.error);
    EXPECT_EQ(largeOutcome.response->statusCode, 200);
    EXPECT_EQ(lastSeen().body.size(), large.size());
    EXPECT_FALSE(lastSeen().has_header("Expect"));
}

TEST_F(CurlUrlSessionTest, ResponsesPassThroughOnTheSessionThread) {
    auto session = makeSession();
    std::optional<std::thread::id> sessionThread;
    for (const int status : {200, 201, 404, 503}) {
        SCOPED_TRACE(status);
        const std::string url = server.url("/status/" + std::to_string(status));
        const Outcome outcome = fetch(*session, requestFor(url));
        ASSERT_FALSE(outcome.error);
        EXPECT_EQ(outcome.response->statusCode, status);
        EXPECT_EQ(outcome.response->url, url);
        EXPECT_EQ(outcome.response->headerValue("content-type"), "text/plain");
        EXPECT_EQ(outcome.data, toBytes("status " + std::to_string(status)));
        EXPECT_NE(outcome.thread, std::this_thread::get_id());
        EXPECT_EQ(outcome.thread, sessionThread.value_or(outcome.thread));
        sessionThread = outcome.thread;
    }
    // Redirects end with the final response only.
    const Outcome redirected = fetch(*session, requestFor(server.url("/redirect")));
    ASSERT_FALSE(redirected.error);
    EXPECT_EQ(redirected.response->url, server.url("/final"));
    EXPECT_EQ(redirected.response->headerValue("X-Final"), "1");
    EXPECT_EQ(redirected.response->headerValue("X-First"), std::nullopt);
    EXPECT_EQ(redirected.data, toBytes("final"));
}

TEST_F(CurlUrlSessionTest, FailuresMapToErrorCodes) {
    const struct {
        std::string url;
        std::optional<Code> expected;  // absent: succeeds
    } cases[] = {
        {server.url("/loop"), Code::tooManyRedirects},
        {testing::RawTcpServer::closedOrigin() + "/", Code::cannotConnect},
        {"not a url", Code::badUrl},
        {"127.0.0.1/echo", Code::badUrl},
        {"ftp://127.0.0.1/file", Code::badUrl},
        {"file:///etc/passwd", Code::badUrl},
        {server.url("/sized/1000"), std::nullopt},
        {server.url("/sized/1001"), Code::responseTooLarge},
        {server.url("/sized/1000000000"), Code::responseTooLarge},
        {server.url("/endless"), Code::responseTooLarge},
    };
    UrlSessionConfiguration config;
    config.maxRedirects = 3;
    config.maxResponseBytes = 1000;
    auto session = makeSession(config);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        const Outcome outcome = fetch(*session, requestFor(c.url));
        ASSERT_EQ(outcome.error.has_value(), c.expected.has_value());
        if (!c.expected) continue;
        EXPECT_EQ(outcome.error->code, *c.expected) << outcome.error->localizedDescription;
        EXPECT_FALSE(outcome.error->localizedDescription.empty());
        EXPECT_FALSE(outcome.data);
    }
}

TEST_F(CurlUrlSessionTest, IdleAndWholeRequestTimeOuts) {
    struct Case {
        const char* path;
        std::optional<double> idle, whole, requestTimeout;
        bool responseSeen;  // the failure came after the headers
        std::chrono::milliseconds atLeast;
    };
    const Case cases[] = {
        {"/stall", 0.5, std::nullopt, std::nullopt, false, 400ms},
        {"/stall-body", 0.5, std::nullopt, std::nullopt, true, 400ms},
        {"/stall", 60, std::nullopt, 0.5, false, 400ms},  // the request's own interval wins
        // Bytes keep coming, so the idle limit never strikes; the whole-request limit does.
        {"/trickle", 0.5, 1.5, std::nullopt, true, 1400ms},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        UrlSessionConfiguration config;
        config.requestTimeout = c.idle;
        config.resourceTimeout = c.whole;
        auto session = makeSession(config);
        UrlRequest request = requestFor(server.url(c.path));
        request.timeoutInterval = c.requestTimeout;
        const auto started = std::chrono::steady_clock::now();
        const Outcome outcome = fetch(*session, request);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code, Code::timedOut) << outcome.error->localizedDescription;
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
    const auto outcome = cancelled.await(10s);
    ASSERT_TRUE(outcome && outcome->error);
    EXPECT_EQ(outcome->error->code, Code::cancelled);
    EXPECT_FALSE(outcome->response);
    EXPECT_EQ(dropped.calls(), 0) << "the other task runs on";
    session.reset();  // joins the session thread, which has delivered the cancellation by then
    ASSERT_EQ(dropped.calls(), 1);
    EXPECT_EQ(dropped.await(0s)->error.value().code, Code::cancelled);
    task->cancel();  // after the end: harmless
    EXPECT_EQ(cancelled.calls(), 1);
}

TEST_F(CurlUrlSessionTest, InvalidatingCancelsOrFinishesRunningTasksAndRefusesLaterOnes) {
    for (const bool finish : {false, true}) {
        SCOPED_TRACE(finish ? "finishTasksAndInvalidate" : "invalidateAndCancel");
        auto session = makeSession();
        OutcomeRecorder first, second, later;
        session->dataTask(requestFor(server.url("/stall")), first.dataCompletion());
        session->dataTask(requestFor(server.url("/stall")), second.dataCompletion());
        ASSERT_TRUE(gate.waitForArrivals(finish ? 4 : 2));
        finish ? session->finishTasksAndInvalidate() : session->invalidateAndCancel();
        session->dataTask(requestFor(server.url("/echo")), later.dataCompletion());
        const auto refused = later.await();
        ASSERT_TRUE(refused && refused->error);
        EXPECT_EQ(refused->error->code, Code::cancelled);
        if (finish) gate.open();
        for (OutcomeRecorder* running : {&first, &second}) {
            const auto outcome = running->await();
            ASSERT_TRUE(outcome);
            EXPECT_EQ(outcome->error ? std::optional(outcome->error->code) : std::nullopt,
                      finish ? std::nullopt : std::optional(Code::cancelled));
            EXPECT_EQ(outcome->data, finish ? std::optional(toBytes("late")) : std::nullopt);
        }
    }
}

// A completion may start the next task on its own session and drop the last reference to it.
TEST_F(CurlUrlSessionTest, CompletionsMayChainTasksAndReleaseTheSession) {
    auto holder = std::make_shared<std::shared_ptr<UrlSession>>(makeSession());
    // Shared with the completions, so that the promise outlives their last touch of it.
    auto secondDone = std::make_shared<std::promise<std::string>>();
    auto future = secondDone->get_future();
    const std::string secondUrl = server.url("/status/201");
    (*holder)->dataTask(requestFor(server.url("/echo")), [holder, secondUrl, secondDone](auto, auto, auto) {
        (*holder)->dataTask(requestFor(secondUrl), [holder, secondDone](auto, auto response, auto) {
            holder->reset();  // the last reference goes away on the session's own thread
            secondDone->set_value(response ? std::to_string(response->statusCode) : "none");
        });
    });
    ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(future.get(), "201");
}

TEST_F(CurlUrlSessionTest, DownloadsGoToPrivateFilesThatLastOnlyThroughTheCompletion) {
    const struct {
        std::string path, suggested, contents;
        std::optional<Code> error;
    } cases[] = {
        {"/files/monthly%20report.pdf?version=2", "monthly report.pdf", "file contents", std::nullopt},
        {"/files/x?name=na%25C3%25AFve%2520image.png", "na\xC3\xAFve image.png", "file contents", std::nullopt},
        {"/endless", "", "", Code::responseTooLarge},
        {"/sized/101", "", "", Code::responseTooLarge},
    };
    UrlSessionConfiguration config;
    config.maxResponseBytes = 100;
    auto session = makeSession(config);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        OutcomeRecorder recorder;
        std::string contentsSeen;
        fs::perms permissionsSeen{};
        session->downloadTask(requestFor(server.url(c.path)), recorder.downloadCompletion([&](const auto& location) {
            if (!location) return;
            contentsSeen = fileContents(*location);
            permissionsSeen = permissionsOf(*location);
        }));
        const auto outcome = recorder.await();
        ASSERT_TRUE(outcome);
        ASSERT_EQ(outcome->error ? std::optional(outcome->error->code) : std::nullopt, c.error);
        EXPECT_EQ(outcome->location.has_value(), !c.error);
        if (c.error) continue;
        EXPECT_EQ(outcome->location->parent_path(), downloads);
        EXPECT_EQ(contentsSeen, c.contents);
        EXPECT_EQ(permissionsSeen, fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(outcome->response->suggestedFilename(), c.suggested);
    }
    EXPECT_EQ(permissionsOf(downloads), fs::perms::owner_all);

    // A file the completion moves away is the caller's to keep.
    const fs::path kept = temp.path() / "kept.pdf";
    OutcomeRecorder moved;
    session->downloadTask(requestFor(server.url("/files/a.pdf")), moved.downloadCompletion([&](const auto& location) {
        if (location) fs::rename(*location, kept);
    }));
    ASSERT_TRUE(moved.await());
    EXPECT_EQ(fileContents(kept), "file contents");
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
        [](httplib::Server& routes) {
            routes.Get("/hello", [](const httplib::Request&, httplib::Response& response) {
                response.set_content("secure", "text/plain");
            });
        },
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
        NetworkOptions network;
        network.connectTo = {server.connectTo("thathost", server.port())};
        network.extraCaFile = c.extraCaFile;
        auto session = makeCurlUrlSession({}, network, temp.path() / "downloads");
        const std::string url = "https://thathost:" + std::to_string(server.port()) + "/hello";
        OutcomeRecorder recorder;
        session->dataTask(requestFor(url), recorder.dataCompletion());
        const auto outcome = recorder.await();
        ASSERT_TRUE(outcome);
        ASSERT_EQ(outcome->error.has_value(), c.expected.has_value())
            << (outcome->error ? outcome->error->localizedDescription : "no error");
        if (c.expected) {
            EXPECT_EQ(outcome->error->code, *c.expected) << outcome->error->localizedDescription;
        } else {
            EXPECT_EQ(outcome->data, toBytes("secure"));
            EXPECT_EQ(outcome->response->url, url);
        }
    }
}

}  // namespace
}  // namespace vontu::platform::linux_host
