#include "examples/callroute/peer.h"

#include <algorithm>
#include <iterator>

#include "kernel/buffer.h"
#include "network/asocket.h"

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
  LinePeer(Events& events, int index) : Peer(events, index), LineSocket(kLineBytes) {
    callrouter::send_without_delay(*socket);
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
  OSIORetCode ConnectIndication(OSIOAddress*) override {
    events_.on_connected(*this);
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    events_.on_closed(*this, reason, code);
    return Success;
  }
  void Receive(char* text) override { events_.on_answer(*this, text); }
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

std::unique_ptr<Peer> Peer::make(Framing framing, Events& events, int index) {
  if (framing == Framing::kLines) return std::make_unique<LinePeer>(events, index);
  return std::make_unique<PacketPeer>(events, index);
}

}  // namespace callroute
