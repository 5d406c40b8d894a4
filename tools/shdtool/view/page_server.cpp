// The web server by way of cpp-httplib, the only file that knows that library: its headers cost
// seconds of compiling. Called by the view command.
#include "tools/shdtool/view/page_server.h"

#include <dirent.h>
#include <fmt/format.h>
#include <httplib.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <thread>
#include <utility>

#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/view/assets.h"

namespace shdtool {
namespace {

using httplib::Request;
using httplib::Response;
using shdclient::Error;
using shdclient::ErrorCode;

constexpr const char* kHost = "127.0.0.1";

// A browser holds one connection for its feed and a few more for a moment; each takes a thread.
constexpr int kMaxBrowsers = 12;
constexpr size_t kThreads = 24;

constexpr int kUnsentBytes = 128 << 10;  // of one connection in the kernel, which doubles it
constexpr size_t kMaxPostBytes = 4096;
constexpr time_t kPatienceSec = 86'400;  // with a browser that stands still

enum HttpStatus : int {
    kOk = 200,
    kForbidden = 403,
    kNotFound = 404,
    kUnsupportedType = 415,
    kBusy = 503,
};

shdclient::Result<std::string> MakeToken() {
    std::array<uint8_t, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return Error{ErrorCode::kSystem, "the kernel gives no random numbers"};
    }
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

// In a time that does not tell how much of it is right.
bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned difference = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        difference |=
            static_cast<unsigned>(static_cast<uint8_t>(a[i]) ^ static_cast<uint8_t>(b[i]));
    }
    return difference == 0;
}

const char* TypeOf(std::string_view name) {
    struct Row {
        std::string_view ending;
        const char* type;
    };
    static constexpr Row kRows[] = {{".html", "text/html; charset=utf-8"},
                                    {".css", "text/css; charset=utf-8"},
                                    {".js", "text/javascript; charset=utf-8"},
                                    {".svg", "image/svg+xml"}};
    for (const Row& row : kRows) {
        if (name.ends_with(row.ending)) return row.type;
    }
    return "application/octet-stream";
}

// Sockets of this process that are bound to the port: the library keeps its own to itself.
void ShutDownConnections(int port) {
    const std::unique_ptr<DIR, int (*)(DIR*)> files(opendir("/proc/self/fd"), closedir);
    while (const dirent* file = files ? readdir(files.get()) : nullptr) {
        const std::string_view name = file->d_name;
        int fd = -1;
        std::from_chars(name.data(), name.data() + name.size(), fd);
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) continue;
        if (address.sin_family == AF_INET && ntohs(address.sin_port) == port) {
            (void)shutdown(fd, SHUT_RDWR);  // one that is closing by itself will do
        }
    }
}

}  // namespace

class PageServer::Server {
  public:
    Server(Feed& feed, Act act) : feed_(feed), act_(std::move(act)) {}

    ~Server() {
        feed_.Close();
        if (!thread_.joinable()) return;
        http_.stop();
        ShutDownConnections(port_);
    }

    [[nodiscard]] shdclient::Status Start(int port) {
        const auto token = MakeToken();
        if (!token) return token.error();
        // Without SO_REUSEPORT, the library's own choice, by which two servers can have one port.
        http_.set_socket_options([](int fd) {
            const int on = 1;
            (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
            // Connections inherit it; what is beyond waits in the feed, which has a limit.
            (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kUnsentBytes, sizeof(kUnsentBytes));
        });
        errno = 0;
        port_ = port != 0 && http_.bind_to_port(kHost, port) ? port : 0;
        if (port == 0) port_ = std::max(http_.bind_to_any_port(kHost), 0);
        if (port_ == 0) {
            return Error{ErrorCode::kSystem,
                         fmt::format("cannot listen on {} port {}: {}", kHost, port,
                                     errno != 0 ? std::strerror(errno) : "it is taken")};
        }
        prefix_ = fmt::format("/{}/", *token);
        address_ = fmt::format("http://{}:{}{}", kHost, port_, prefix_);
        SetUp();
        thread_ =
            ThreadWithoutSignals([this](const std::stop_token&) { http_.listen_after_bind(); });
        while (!http_.is_running()) std::this_thread::yield();
        return shdclient::Success();
    }

    [[nodiscard]] const std::string& address() const { return address_; }

  private:
    void SetUp() {
        http_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        http_.set_tcp_nodelay(true);
        http_.set_payload_max_length(kMaxPostBytes);
        http_.set_keep_alive_max_count(1000);
        http_.set_keep_alive_timeout(1);
        http_.set_write_timeout(kPatienceSec);
        // No other page may look at this one or frame it, and its address goes nowhere.
        http_.set_default_headers(
            {{"Cache-Control", "no-store"},
             {"Content-Security-Policy",
              "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
             {"Cross-Origin-Resource-Policy", "same-origin"},
             {"Referrer-Policy", "no-referrer"},
             {"X-Content-Type-Options", "nosniff"}});
        http_.set_pre_routing_handler([this](const Request& request, Response& response) {
            if (Admitted(request)) return httplib::Server::HandlerResponse::Unhandled;
            response.status = kNotFound;
            return httplib::Server::HandlerResponse::Handled;
        });
        http_.Get(".*", [this](const Request& request, Response& response) {
            response.status = Get(request.path.substr(prefix_.size()), response);
        });
        http_.Post(".*", [this](const Request& request, Response& response) {
            response.status = Post(request, response);
        });
    }

    // A page from elsewhere whose name leads here by a trick of its name server has another Host.
    [[nodiscard]] bool Admitted(const Request& request) const {
        const std::string host = request.get_header_value("Host");
        return (host == fmt::format("{}:{}", kHost, port_) ||
                host == fmt::format("localhost:{}", port_)) &&
               SameText(std::string_view(request.path).substr(0, prefix_.size()), prefix_);
    }

    [[nodiscard]] int Get(const std::string& name, Response& response) {
        if (name == "feed") return Join(response);
        const std::string_view wanted = name.empty() ? "index.html" : std::string_view(name);
        for (const Asset& asset : Assets()) {
            if (asset.name != wanted) continue;
            // Not set_content, which spends a second on compressing the library for this machine.
            response.set_content_provider(
                asset.content.size(), TypeOf(wanted),
                [content = asset.content](size_t offset, size_t size, httplib::DataSink& sink) {
                    return sink.write(content.data() + offset, size);
                });
            return kOk;
        }
        return kNotFound;
    }

    [[nodiscard]] int Join(Response& response) {
        if (browsers_.fetch_add(1) >= kMaxBrowsers) {
            --browsers_;
            return kBusy;
        }
        response.set_chunked_content_provider(
            "text/event-stream",
            [session = std::shared_ptr<FeedSession>(feed_.Join()), number = uint64_t{0}](
                size_t, httplib::DataSink& sink) mutable {
                const auto items = session->Next();
                if (!items) return false;
                const std::string message =
                    items->empty() ? ":\n\n"
                                   : fmt::format("id: {}\ndata: [{}]\n\n", ++number, *items);
                return sink.write(message.data(), message.size());
            },
            [this](bool) { --browsers_; });
        return kOk;
    }

    [[nodiscard]] int Post(const Request& request, Response& response) const {
        if (request.path != prefix_ + "do") return kNotFound;
        const std::string origin = request.get_header_value("Origin");
        if (!act_ || (!origin.empty() && origin != fmt::format("http://{}:{}", kHost, port_) &&
                      origin != fmt::format("http://localhost:{}", port_))) {
            return kForbidden;
        }
        if (!request.get_header_value("Content-Type").starts_with("application/json")) {
            return kUnsupportedType;
        }
        response.set_content(act_(request.body), "application/json");
        return kOk;
    }

    Feed& feed_;
    const Act act_;
    std::string prefix_;  // "/TOKEN/"
    std::string address_;
    int port_ = 0;
    std::atomic<int> browsers_ = 0;
    httplib::Server http_;
    std::jthread thread_;  // last, so that it ends first
};

PageServer::PageServer(std::unique_ptr<Server> server) : server_(std::move(server)) {}
PageServer::~PageServer() = default;

const std::string& PageServer::address() const {
    return server_->address();
}

shdclient::Result<std::unique_ptr<PageServer>> PageServer::Start(int port, Feed& feed, Act act) {
    auto server = std::make_unique<Server>(feed, std::move(act));
    const auto started = server->Start(port);
    if (!started) return started.error();
    return std::unique_ptr<PageServer>(new PageServer(std::move(server)));
}

}  // namespace shdtool
