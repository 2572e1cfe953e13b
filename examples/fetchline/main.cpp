// fetchline: sends a line and prints what comes back, on the blocking sockets. See README.md.
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/socket.h"

namespace {

constexpr int kExitNothing = 1;  // nothing has come in time
constexpr int kExitUsage = 2;
constexpr int kExitNoConnection = 4;
constexpr int kExitFatal = 70;  // EX_SOFTWARE

constexpr const char* kDescription =
    "Sends a line and prints what comes back, on the library's blocking sockets:\n\n"
    "  fetchline HOST PORT LINE [--tls] [--timeout MS] [--verbose]\n"
    "  fetchline --serve [--tls] [--verbose] PORT\n";

constexpr const char* kFooter = R"(
Prints what comes until the peer closes or MS milliseconds have passed, and ends with 0 when something has come, 1
when nothing has, 2 for a mistake on the command line, 4 without a connection.

With --serve it accepts connections on 127.0.0.1, one after the other, prints the lines that come and sends each of
them back; it announces its port as "serving on 127.0.0.1:PORT" and goes on until a signal.

--tls runs TLS through SecureSocket, whose certificates stand at fixed places under /Korvantel. As the accepting side
it serves any TLS client. As a client it waits for its peer to speak first, as the appliance's service peers do: every
ordinary TLS server waits for the client, and so that ends after 10 seconds without a session. Programs that are
clients of such servers use the asynchronous sockets; examples/callroute --tls is one.)";

struct Options {
  std::string host;
  std::string line;
  int port = 0;
  bool tls = false;
  int timeout_ms = 2000;
  bool serve = false;
  bool verbose = false;
};

// The blocking sockets report by console lines, not by numbers: the last one is why something failed.
class Terminal : public OSConsole {
 public:
  explicit Terminal(bool verbose) : verbose_(verbose) {}
  void vPrint(const char* format, va_list arguments) override {
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    last_ = text;
    if (verbose_) std::cerr << "fetchline: " << text << std::endl;
  }
  void Fatal(const char* format, ...) override {
    va_list arguments;
    va_start(arguments, format);
    vPrint(format, arguments);
    va_end(arguments);
    std::cerr << "fetchline: fatal: " << last_ << std::endl;
    _exit(kExitFatal);
  }
  /// "what: why".
  void complain(const std::string& what) const {
    std::cerr << "fetchline: " << what << (last_.empty() ? "" : ": ") << last_ << std::endl;
  }

 private:
  const bool verbose_;
  std::string last_;
};

bool send_text(Socket& socket, const std::string& text) {
  OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text.data()), static_cast<int>(text.size()));
  return buf != nullptr && socket.DataIndication(buf) == Success;  // takes the buffer
}

// What has come within the time; the buffer is ours to free. Empty when nothing has; `ended` when nothing will.
std::string receive(Socket& socket, ULONG timeout_ms, bool* ended) {
  OSBuf* buf = socket.RecWait(static_cast<int>(timeout_ms));
  std::string text;
  if (buf != nullptr) text.assign(reinterpret_cast<const char*>(buf->data), buf->length);
  // SecureSocket tells its session's end by an empty buffer.
  *ended = socket.state == Socket::INVALID || (buf != nullptr && buf->length == 0);
  if (buf != nullptr) buf->Free();
  return text;
}

int fetch(Options& options, const Terminal& terminal) {
  // The constructor connects, and a SecureSocket's shakes hands; both wait for it.
  const auto port = static_cast<UWORD>(options.port);
  std::unique_ptr<Socket> socket;
  if (options.tls) {
    socket = std::make_unique<SecureSocket>(Socket::TCP_CLIENT, options.host.data(), port);
  } else {
    socket = std::make_unique<Socket>(Socket::TCP_CLIENT, options.host.data(), port);
  }
  const std::string peer = options.host + ":" + std::to_string(options.port);
  if (socket->state != Socket::CONNECTED) {
    terminal.complain("no connection to " + peer);
    return kExitNoConnection;
  }
  if (options.tls && !socket->Secure()) {
    terminal.complain("no TLS with " + peer + " (a peer that is to be heard speaks first)");
    return kExitNoConnection;
  }
  if (!send_text(*socket, options.line + "\r\n")) {
    terminal.complain("nothing can be sent to " + peer);
    return kExitNoConnection;
  }
  const ULONG started = os_clock();
  const auto limit = static_cast<ULONG>(options.timeout_ms);
  bool came = false;
  for (bool ended = false; !ended && !os_expired(started, limit);) {
    const std::string text = receive(*socket, limit - (os_clock() - started), &ended);
    came = came || !text.empty();
    std::cout << text << std::flush;
  }
  if (!came) std::cerr << "fetchline: nothing has come from " << peer << std::endl;
  return came ? 0 : kExitNothing;
}

// One connection: its lines are printed and go back as they are.
void answer(Socket& socket) {
  constexpr ULONG kAnyTime_ms = 3600 * 1000;
  std::string text;
  for (bool ended = false; !ended;) {
    text += receive(socket, kAnyTime_ms, &ended);
    for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
      std::cout << text.substr(0, end + 1) << std::flush;
      if (!send_text(socket, text.substr(0, end + 1))) return;
    }
    constexpr std::size_t kLongest = 1600;  // no line goes on for ever, and each goes back in one buffer
    if (text.size() > kLongest) return;
  }
}

int serve(const Options& options, const Terminal& terminal) {
  constexpr ULONG kLoopback = 0x7F000001;
  const auto port = static_cast<UWORD>(options.port);
  std::unique_ptr<Socket> listener;
  if (options.tls) {
    listener = std::make_unique<SecureSocket>(Socket::TCP_SERVER, port, true, kLoopback);
  } else {
    listener = std::make_unique<Socket>(Socket::TCP_SERVER, port, true, kLoopback);
  }
  if (listener->state != Socket::READY) {
    terminal.complain("cannot serve on port " + std::to_string(options.port));
    return kExitUsage;
  }
  std::cout << "serving on 127.0.0.1:" << listener->LocalPort() << std::endl;
  for (;;) {
    const std::unique_ptr<Socket> peer(listener->Accept());
    if (!peer) {
      terminal.complain("nobody can be accepted");
      return kExitNoConnection;
    }
    peer->ConnectAck();  // starts TLS on a SecureSocket; does nothing on a plain one
    if (options.tls && !peer->Secure()) {
      terminal.complain(std::string("no TLS with ") + peer->RemoteIPText());
    } else {
      answer(*peer);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{kDescription, "fetchline"};
  app.footer(kFooter);
  std::vector<std::string> words;
  app.add_option("WORD", words, "HOST PORT LINE, or with --serve PORT (0 lets the system choose)")
      ->required();
  app.add_flag("--tls", options.tls, "Over TLS; see below for what that takes");
  app.add_option("--timeout", options.timeout_ms, "How long to wait for what comes")
      ->type_name("MS")
      ->check(CLI::Range(0, 3600 * 1000))
      ->capture_default_str();
  app.add_flag("--serve", options.serve, "Accept connections and send their lines back");
  app.add_flag("-v,--verbose", options.verbose, "Print what the sockets say on the console");
  try {
    app.parse(argc, argv);
    if (words.size() != (options.serve ? 1 : 3)) {
      throw CLI::ValidationError(options.serve ? "--serve" : "arguments",
                                 options.serve ? "takes PORT" : "HOST PORT LINE are needed");
    }
    const std::string& port = words[options.serve ? 0 : 1];
    char* end = nullptr;
    const long number = strtol(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || number < (options.serve ? 0 : 1) || number > 65535) {
      throw CLI::ValidationError("PORT", "'" + port + "' is no port");
    }
    options.port = static_cast<int>(number);
    if (!options.serve) options.host = words[0], options.line = words[2];
    if (!options.serve && options.host.empty()) throw CLI::ValidationError("HOST", "is empty");
    constexpr std::size_t kMostBytes = 1500;
    if (options.line.size() > kMostBytes) throw CLI::ValidationError("LINE", "is too long");
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::cerr << "fetchline: " << error.what() << "\nTry fetchline --help\n";
    return kExitUsage;
  }

  Terminal terminal(options.verbose);
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);  // message buffers come from its pools
  const int exit_code = options.serve ? serve(options, terminal) : fetch(options, terminal);
  os_cleanup();
  Console = nullptr;
  return exit_code;
}
