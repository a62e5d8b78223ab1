#include "support/web_server.hpp"

#include <chrono>
#include <fstream>
#include <iterator>
#include <string_view>

namespace korvalen::testing {
namespace {

constexpr std::string_view script = R"PY(
import http.server, os, sys, time
root = sys.argv[1]
requests = sys.argv[2]
class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *a, **k):
        super().__init__(*a, directory=root, **k)
    def log_message(self, *a):
        pass
    def parse_request(self):
        ok = super().parse_request()
        if ok:
            with open(requests, "a") as log:
                log.write(self.command + " " + self.path + "\n")
        return ok
    def do_POST(self):
        self.send_error(404)
    def do_GET(self):
        for prefix in ("/slow/", "/broken/"):
            if self.path.startswith(prefix):
                return self.send_part(prefix)
        return super().do_GET()
    def send_part(self, prefix):
        path = os.path.join(root, self.path[len(prefix):].split("?")[0])
        data = open(path, "rb").read()
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        if prefix == "/broken/":
            self.wfile.write(data[:len(data) // 2])
            self.wfile.flush()
            self.close_connection = True
            return
        for i in range(0, len(data), 4096):
            self.wfile.write(data[i:i + 4096])
            time.sleep(0.05)
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

}  // namespace

WebServer::WebServer(const std::filesystem::path& root) {
  const auto file = root.parent_path() / "web_server.py";
  requests_ = root.parent_path() / "web_server_requests.txt";
  std::ofstream(file) << script;
  std::ofstream{requests_};
  auto started =
      engine::ChildProcess::start("/usr/bin/python3", {"-u", file.string(), root.string(), requests_.string()});
  if (!started) {
    error_ = started.error();
    return;
  }
  server_.emplace(std::move(*started));
  std::string out;
  for (int i = 0; i < 100 && out.find('\n') == std::string::npos; ++i) {
    server_->pump(out, error_, std::chrono::milliseconds(50));
  }
  if (out.find('\n') == std::string::npos) {
    error_ = "the web server did not start: " + error_;
    return;
  }
  base_ = "http://127.0.0.1:" + out.substr(0, out.find('\n'));
}

std::string WebServer::requests() const {
  std::ifstream in(requests_);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

WebServer::~WebServer() {
  if (server_) {
    server_->terminate();
  }
}

}  // namespace korvalen::testing
