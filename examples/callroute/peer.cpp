#include "examples/callroute/peer.h"

#include <algorithm>
#include <iterator>

#include "examples/callroute/tls.h"
#include "kernel/buffer.h"
#include "network/asocket.h"
#include "network/assl.h"

namespace callroute {
namespace {

using callrouter::Framing;

// Storage that an answer begins with; longer ones make it grow.
constexpr int kLineBytes = 512;

constexpr std::size_t kPieceBytes = 1400;

OSBuf* buffer(std::string_view bytes) {
  return OSBuf::Alloc(reinterpret_cast<const UBYTE*>(bytes.data()), static_cast<int>(bytes.size()));
}

class LinePeer : public Peer, private LineSocket {
 public:
  LinePeer(const Options& options, Events& events, int index)
      : Peer(events, index), LineSocket(kLineBytes), options_(options) {
    callrouter::send_without_delay(*socket);
  }

  // A socket that is freed closes its session without a word, which the router takes for an accident.
  ~LinePeer() override {
    if (tls_ == Tls::kEstablished) socket->StopSSL();
  }

  void connect(const std::string& host, UWORD port) override { Connect(host.c_str(), port); }

  void ask(std::string_view number) override {
    const std::string request = askable(number) + "\r\n";
    // Not as a string, which would end at a zero byte.
    for (std::string_view rest = request; !rest.empty();
         rest.remove_prefix(std::min(rest.size(), kPieceBytes))) {
      if (OSBuf* buf = buffer(rest.substr(0, kPieceBytes))) Send(buf);
    }
  }

  std::string askable(std::string_view number) const override {
    std::string request(number);
    std::replace_if(
        request.begin(), request.end(), [](char c) { return c == '\r' || c == '\n'; }, '?');
    return request;
  }

  // A line socket's lines are ASCII: it drops every byte of 128 and more.
  std::string as_received(std::string_view answer) const override {
    std::string text;
    std::copy_if(answer.begin(), answer.end(), std::back_inserter(text),
                 [](char c) { return static_cast<unsigned char>(c) < 128; });
    return text;
  }

 private:
  enum class Tls { kNone, kStarted, kEstablished };

  bool securing() const override { return tls_ == Tls::kStarted; }

  // Comes once more when TLS is established. A socket that is `secure` would start TLS by itself, but accept any
  // router that is self-signed or has another name.
  OSIORetCode ConnectIndication(OSIOAddress*) override {
    if (!callrouter::is_secure(options_.offer)) return connected();
    if (tls_ == Tls::kStarted) return established();
    tls_ = Tls::kStarted;
    std::string name = options_.peer_name;
    const int result = socket->StartSSL(false, kRefuseSelfSigned, name.empty() ? nullptr : name.data());
    if (result > 0) return not_established();
    if (heard_in_the_clear()) return spoke_in_the_clear();
    return result == 0 ? established() : Success;  // the socket goes on with the handshake
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    events_.on_closed(*this, reason, code);
    return Success;
  }
  void Receive(char* text) override {
    if (securing()) {
      spoke_in_the_clear();
    } else {
      events_.on_answer(*this, text);
    }
  }

  // What was received before StartSSL waits in the socket's queue, in front of the session's first word. Half a line of it
  // would be taken for the beginning of the first answer.
  bool heard_in_the_clear() {
    EnterCriticalSection(&socket->local_cs);
    const auto* first = static_cast<OSBuf*>(static_cast<OSLinkListObj*>(socket->q.FirstObject()));
    const bool heard = first != nullptr && first->length != 0;
    LeaveCriticalSection(&socket->local_cs);
    return heard;
  }
  OSIORetCode connected() {
    events_.on_connected(*this);
    return Success;
  }
  OSIORetCode established() {
    tls_ = Tls::kEstablished;
    return connected();
  }
  OSIORetCode not_established() {
    events_.on_closed(*this, Failed, SSL_ERROR_SSL);
    return Success;
  }
  OSIORetCode spoke_in_the_clear() {
    TlsWords::hear_own("the router speaks in the clear; does the port serve TLS?");
    return not_established();
  }

  const Options& options_;
  Tls tls_ = Tls::kNone;
};

class PacketPeer : public Peer, private OSIO {
 public:
  PacketPeer(Events& events, int index) : Peer(events, index), socket_(new TPKTSocket) {
    socket_->Bind(this);
    socket_->Create(SOCK_STREAM, 0, 0, false);
    callrouter::send_without_delay(*socket_);
  }
  ~PacketPeer() override { socket_->Free(); }

  void connect(const std::string& host, UWORD port) override { socket_->Connect(host.c_str(), port); }

  void ask(std::string_view number) override {
    if (OSBuf* buf = buffer(askable(number))) socket_->DataIndication(buf);
  }

  // An empty packet means nothing at the other end, and is never answered.
  std::string askable(std::string_view number) const override {
    return number.empty() ? " " : std::string(number);
  }

  std::string as_received(std::string_view answer) const override { return std::string(answer); }

 private:
  OSIORetCode DataIndication(OSBuf* buf) override {
    events_.on_answer(*this, {reinterpret_cast<const char*>(buf->data), buf->length});
    buf->Free();
    return Success;
  }
  OSIORetCode ConnectIndication(OSIOAddress*) override {
    events_.on_connected(*this);
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    events_.on_closed(*this, reason, code);
    return Success;
  }

  TPKTSocket* const socket_;
};

}  // namespace

std::unique_ptr<Peer> Peer::make(const Options& options, Events& events, int index) {
  if (callrouter::framing_of(options.offer) == Framing::kLines)
    return std::make_unique<LinePeer>(options, events, index);
  return std::make_unique<PacketPeer>(events, index);
}

}  // namespace callroute
