#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/linux/CurlUrlSession.hpp"
#include "tests/platform/urlsession/LoopbackServer.hpp"
#include "tests/support/TempDir.hpp"

namespace vontu::platform::linux_host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vontu::testing::Gate;
using vontu::testing::LoopbackServer;
using vontu::testing::Outcome;
using vontu::testing::OutcomeRecorder;
using Code = UrlError::Code;

UrlRequest requestFor(std::string url, std::string method = "GET", std::optional<Bytes> body = std::nullopt) {
    UrlRequest request;
    request.url = std::move(url);
    request.method = std::move(method);
    request.body = std::move(body);
    return request;
}

// A port on which nothing listens: bound once, then given back.
int closedPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

std::string fileContents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

fs::perms permissionsOf(const fs::path& path) { return fs::status(path).permissions() & fs::perms::all; }

// The requests the server saw, as it saw them.
class SeenRequests {
public:
    struct Seen {
        std::string method;
        httplib::Headers headers;
        std::string body;
    };
    void record(const httplib::Request& request) {
        std::lock_guard lock(mutex_);
        last_ = Seen{request.method, request.headers, request.body};
    }
    Seen last() const {
        std::lock_guard lock(mutex_);
        return last_;
    }

private:
    mutable std::mutex mutex_;
    Seen last_;
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

    Gate gate;
    SeenRequests seen;
    vontu::testing::TempDir temp;
    fs::path downloads = temp.path() / "tmp" / "downloads";
    LoopbackServer server{[this](httplib::Server& routes) { addRoutes(routes); }};

private:
    void addRoutes(httplib::Server& routes) {
        const auto echo = [this](const httplib::Request& request, httplib::Response& response) {
            seen.record(request);
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
        routes.Get("/files/.*", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("file contents", "application/pdf");
        });
        routes.Get("/attachment", [](const httplib::Request&, httplib::Response& response) {
            response.set_header("Content-Disposition", "attachment; filename*=UTF-8''na%C3%AFve%20image.png");
            response.set_content("\x89PNG", "image/png");
        });
    }
};

TEST_F(CurlUrlSessionTest, SendsMethodsAndBodiesAsGiven) {
    struct Case {
        std::string method;
        std::optional<Bytes> body;
        std::optional<std::string> contentLength;  // absent: no such header
    };
    const Bytes binary{'a', 0, 'b', 0xFF, '\r', '\n'};
    const Case cases[] = {
        {"GET", std::nullopt, std::nullopt},
        {"POST", binary, "6"},
        {"POST", Bytes{}, "0"},
        {"POST", std::nullopt, "0"},
        {"PUT", toBytes("{\"a\":1}"), "7"},
        {"DELETE", std::nullopt, std::nullopt},
        {"PATCH", toBytes("patch"), "5"},
    };
    auto session = makeSession();
    for (const Case& c : cases) {
        const Outcome outcome = fetch(*session, requestFor(server.url("/echo"), c.method, c.body));
        ASSERT_FALSE(outcome.error) << c.method << ": " << outcome.error->localizedDescription;
        const auto request = seen.last();
        EXPECT_EQ(request.method, c.method);
        EXPECT_EQ(request.body, toString(c.body.value_or(Bytes{}))) << c.method;
        const auto length = request.headers.find("Content-Length");
        EXPECT_EQ(length == request.headers.end() ? std::nullopt : std::optional(length->second), c.contentLength)
            << c.method;
        EXPECT_EQ(request.headers.count("Expect"), 0u);
        EXPECT_EQ(outcome.data, toBytes("ok"));
    }
}

TEST_F(CurlUrlSessionTest, RequestHeadersReplaceTheSessionsAndContentLengthFollowsTheBody) {
    UrlSessionConfiguration config;
    config.additionalHeaders = {{"Authorization", "Basic c2l0ZTprZXk="}, {"X-Session", "session"}};
    auto session = makeSession(config);
    UrlRequest request = requestFor(server.url("/echo"), "POST", toBytes("abc"));
    request.headers = {{"x-session", "request"}, {"Content-Type", "application/json"}, {"Content-Length", "999"}};

    ASSERT_FALSE(fetch(*session, request).error);
    const auto received = seen.last();
    EXPECT_EQ(received.headers.count("X-Session"), 1u);
    EXPECT_EQ(received.headers.find("X-Session")->second, "request");
    EXPECT_EQ(received.headers.find("Authorization")->second, "Basic c2l0ZTprZXk=");
    EXPECT_EQ(received.headers.find("Content-Type")->second, "application/json");
    EXPECT_EQ(received.headers.find("Content-Length")->second, "3");
    EXPECT_EQ(received.body, "abc");

    // A body large enough that curl would otherwise ask for "100 Continue" first.
    const std::string large(2 * 1024 * 1024, 'L');
    UrlRequest largeRequest = requestFor(server.url("/echo"), "POST", toBytes(large));
    largeRequest.headers = {{"Content-Type", "application/octet-stream"}};
    const Outcome outcome = fetch(*session, largeRequest);
    ASSERT_FALSE(outcome.error);
    EXPECT_EQ(outcome.response->statusCode, 200);
    EXPECT_EQ(seen.last().body.size(), large.size());
    EXPECT_EQ(seen.last().headers.count("Expect"), 0u);
}

TEST_F(CurlUrlSessionTest, StatusCodesPassThroughOnTheSessionThread) {
    auto session = makeSession();
    std::optional<std::thread::id> sessionThread;
    for (const int status : {200, 201, 404, 500, 503}) {
        const std::string url = server.url("/status/" + std::to_string(status));
        const Outcome outcome = fetch(*session, requestFor(url));
        ASSERT_FALSE(outcome.error) << status;
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->statusCode, status);
        EXPECT_EQ(outcome.response->url, url);
        EXPECT_EQ(outcome.response->headerValue("content-type"), "text/plain");
        EXPECT_EQ(outcome.data, toBytes("status " + std::to_string(status)));
        EXPECT_NE(outcome.thread, std::this_thread::get_id());
        if (!sessionThread) sessionThread = outcome.thread;
        EXPECT_EQ(outcome.thread, *sessionThread);
    }
}

TEST_F(CurlUrlSessionTest, RedirectsEndWithTheFinalResponseOnly) {
    auto session = makeSession();
    const Outcome outcome = fetch(*session, requestFor(server.url("/redirect")));
    ASSERT_FALSE(outcome.error);
    EXPECT_EQ(outcome.response->url, server.url("/final"));
    EXPECT_EQ(outcome.response->headerValue("X-Final"), "1");
    EXPECT_EQ(outcome.response->headerValue("X-First"), std::nullopt);
    EXPECT_EQ(outcome.data, toBytes("final"));
}

TEST_F(CurlUrlSessionTest, FailuresMapToErrorCodes) {
    struct Case {
        std::string url;
        std::optional<Code> expected;  // absent: succeeds
    };
    const Case cases[] = {
        {server.url("/loop"), Code::tooManyRedirects},
        {"http://127.0.0.1:" + std::to_string(closedPort()) + "/", Code::cannotConnect},
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
    for (const Case& c : cases) {
        const Outcome outcome = fetch(*session, requestFor(c.url));
        ASSERT_EQ(outcome.error.has_value(), c.expected.has_value()) << c.url;
        if (!c.expected) continue;
        EXPECT_EQ(outcome.error->code, *c.expected) << c.url << ": " << outcome.error->localizedDescription;
        EXPECT_FALSE(outcome.error->localizedDescription.empty());
        EXPECT_FALSE(outcome.data);
    }
}

TEST_F(CurlUrlSessionTest, IdleAndWholeRequestTimeOuts) {
    const auto configuration = [](std::optional<double> idle, std::optional<double> whole) {
        UrlSessionConfiguration config;
        config.requestTimeout = idle;
        config.resourceTimeout = whole;
        return config;
    };
    struct Case {
        const char* path;
        UrlSessionConfiguration config;
        std::optional<double> requestTimeout;
        bool responseSeen;  // the failure came after the headers
        std::chrono::milliseconds atLeast;
    };
    const Case cases[] = {
        {"/stall", configuration(0.5, std::nullopt), std::nullopt, false, 400ms},
        {"/stall-body", configuration(0.5, std::nullopt), std::nullopt, true, 400ms},
        {"/stall", configuration(60, std::nullopt), 0.5, false, 400ms},  // the request's own interval wins
        {"/trickle", configuration(60, 1), std::nullopt, true, 900ms},
        // Bytes keep coming, so the idle limit never strikes; the whole-request limit does.
        {"/trickle", configuration(0.5, 1.5), std::nullopt, true, 1400ms},
    };
    for (const Case& c : cases) {
        auto session = makeSession(c.config);
        UrlRequest request = requestFor(server.url(c.path));
        request.timeoutInterval = c.requestTimeout;
        const auto started = std::chrono::steady_clock::now();
        const Outcome outcome = fetch(*session, request);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        ASSERT_TRUE(outcome.error) << c.path;
        EXPECT_EQ(outcome.error->code, Code::timedOut) << c.path << ": " << outcome.error->localizedDescription;
        EXPECT_GE(elapsed, c.atLeast) << c.path;
        EXPECT_LT(elapsed, 20s) << c.path;
        EXPECT_EQ(outcome.response.has_value(), c.responseSeen) << c.path;
    }
}

TEST_F(CurlUrlSessionTest, CancelStopsAStalledTaskPromptly) {
    auto session = makeSession();
    OutcomeRecorder recorder;
    auto task = session->dataTask(requestFor(server.url("/stall")), recorder.dataCompletion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    const auto started = std::chrono::steady_clock::now();
    task->cancel();
    task->cancel();
    const auto outcome = recorder.await();
    ASSERT_TRUE(outcome);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code, Code::cancelled);
    EXPECT_FALSE(outcome->response);
    session.reset();
    task->cancel();  // after the end: harmless
    EXPECT_EQ(recorder.calls(), 1);
}

TEST_F(CurlUrlSessionTest, InvalidateAndCancelEndsRunningAndLaterTasks) {
    auto session = makeSession();
    OutcomeRecorder first, second, later;
    session->dataTask(requestFor(server.url("/stall")), first.dataCompletion());
    session->dataTask(requestFor(server.url("/stall")), second.dataCompletion());
    ASSERT_TRUE(gate.waitForArrivals(2));
    session->invalidateAndCancel();
    session->dataTask(requestFor(server.url("/echo")), later.dataCompletion());
    for (OutcomeRecorder* recorder : {&first, &second, &later}) {
        const auto outcome = recorder->await(10s);
        ASSERT_TRUE(outcome);
        ASSERT_TRUE(outcome->error);
        EXPECT_EQ(outcome->error->code, Code::cancelled);
    }
}

TEST_F(CurlUrlSessionTest, FinishTasksAndInvalidateLetsRunningTasksFinish) {
    auto session = makeSession();
    OutcomeRecorder running, later;
    session->dataTask(requestFor(server.url("/stall")), running.dataCompletion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    session->finishTasksAndInvalidate();
    session->dataTask(requestFor(server.url("/echo")), later.dataCompletion());
    const auto refused = later.await();
    ASSERT_TRUE(refused && refused->error);
    EXPECT_EQ(refused->error->code, Code::cancelled);

    gate.open();
    const auto finished = running.await();
    ASSERT_TRUE(finished);
    EXPECT_FALSE(finished->error);
    EXPECT_EQ(finished->data, toBytes("late"));
}

TEST_F(CurlUrlSessionTest, DroppingTheSessionCancelsItsTasks) {
    auto session = makeSession();
    OutcomeRecorder recorder;
    session->dataTask(requestFor(server.url("/stall")), recorder.dataCompletion());
    ASSERT_TRUE(gate.waitForArrivals(1));
    session.reset();  // joins the session thread, which has delivered the cancellation by then
    EXPECT_EQ(recorder.calls(), 1);
    const auto outcome = recorder.await(0s);
    ASSERT_TRUE(outcome && outcome->error);
    EXPECT_EQ(outcome->error->code, Code::cancelled);
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

TEST_F(CurlUrlSessionTest, DownloadsGoToPrivateTemporaryFiles) {
    struct Case {
        std::string path;
        std::string suggested;
        std::string contents;
    };
    const Case cases[] = {
        {"/files/monthly%20report.pdf?version=2", "monthly report.pdf", "file contents"},
        {"/attachment", "na\xC3\xAFve image.png", "\x89PNG"},
    };
    auto session = makeSession();
    std::vector<fs::path> locations;
    for (const Case& c : cases) {
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
        ASSERT_FALSE(outcome->error) << outcome->error->localizedDescription;
        ASSERT_TRUE(outcome->location);
        EXPECT_EQ(outcome->location->parent_path(), downloads);
        EXPECT_EQ(contentsSeen, c.contents);
        EXPECT_EQ(permissionsSeen, fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(outcome->response->suggestedFilename(), c.suggested);
        locations.push_back(*outcome->location);
    }
    EXPECT_EQ(permissionsOf(downloads), fs::perms::owner_all);
    session.reset();  // the thread has ended: every completion has returned and been cleaned up after
    for (const fs::path& location : locations) EXPECT_FALSE(fs::exists(location)) << location;
}

TEST_F(CurlUrlSessionTest, DownloadMovedAwaySurvivesAndFailedDownloadsLeaveNothing) {
    UrlSessionConfiguration config;
    config.maxResponseBytes = 100;
    auto session = makeSession(config);
    const fs::path kept = temp.path() / "kept.pdf";
    OutcomeRecorder moved;
    session->downloadTask(requestFor(server.url("/files/a.pdf")), moved.downloadCompletion([&](const auto& location) {
        if (location) fs::rename(*location, kept);
    }));
    ASSERT_TRUE(moved.await());
    EXPECT_EQ(fileContents(kept), "file contents");

    for (const char* path : {"/endless", "/sized/101"}) {
        OutcomeRecorder tooLarge;
        session->downloadTask(requestFor(server.url(path)), tooLarge.downloadCompletion());
        const auto outcome = tooLarge.await();
        ASSERT_TRUE(outcome && outcome->error);
        EXPECT_EQ(outcome->error->code, Code::responseTooLarge);
        EXPECT_FALSE(outcome->location);
    }
    session.reset();
    EXPECT_TRUE(fs::is_empty(downloads));
}

TEST_F(CurlUrlSessionTest, ConnectToSendsAHostToTheLoopbackServer) {
    NetworkOptions network;
    network.connectTo = {"tracking.example:80:127.0.0.1:" + std::to_string(server.port())};
    auto session = makeSession({}, network);
    const Outcome outcome = fetch(*session, requestFor("http://tracking.example/echo"));
    ASSERT_FALSE(outcome.error) << outcome.error->localizedDescription;
    EXPECT_EQ(outcome.response->url, "http://tracking.example/echo");
    EXPECT_EQ(seen.last().headers.find("Host")->second, "tracking.example");
}

}  // namespace
}  // namespace vontu::platform::linux_host
