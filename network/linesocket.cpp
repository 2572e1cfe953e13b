// Text lines over TCP.
#include "network/linesocket.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "network/asocketX_priv.h"

int LineSocket::max_line_bytes = 1 << 20;

namespace {

constexpr char kLineFeed = '\n';
constexpr char kCarriageReturn = '\r';
constexpr std::size_t kSendBytes = 1600;

}  // namespace

LineSocket::LineSocket(int max_line)
    : socket(nullptr),
      line(nullptr),
      maxlinelen(max_line),
      linelen(0),
      done(false),
      room_bytes_(std::max(max_line, 1)),
      overlong_(false) {
  line = new (std::nothrow) char[static_cast<std::size_t>(room_bytes_)];
  if (line == nullptr) {
    room_bytes_ = 0;
  } else {
    line[0] = '\0';
  }
  socket = new AsyncSocket(true);
  socket->Bind(this);
  socket->Create(SOCK_STREAM, 0, 0, false);
}

LineSocket::~LineSocket() {
  if (socket != nullptr) socket->Free();  // a derived class may have done it
  delete[] line;
}

// ---- Receiving ---------------------------------------------------------------------------------------------

// Makes `line` larger, so that `needed` bytes, which the ceiling allows, fit. Doubling keeps the copying in proportion
// to the line.
bool LineSocket::grow(int needed, int ceiling) {
  const int doubled = room_bytes_ > ceiling / 2 ? ceiling : room_bytes_ * 2;
  const int bytes = std::max(doubled, needed);
  char* larger = new (std::nothrow) char[static_cast<std::size_t>(bytes)];
  if (larger == nullptr) return false;
  if (linelen > 0) std::memcpy(larger, line, static_cast<std::size_t>(linelen));
  delete[] line;
  line = larger;
  room_bytes_ = bytes;
  return true;
}

// One character at the end of the line, behind which there is always room for the terminating zero.
bool LineSocket::append(char c, int ceiling) {
  const int needed = linelen + 2;
  if (needed > ceiling) return false;
  if (needed > room_bytes_ && !grow(needed, ceiling)) return false;
  line[linelen++] = c;
  return true;
}

// What is still received of the connection is dropped: it is the rest of a line that nobody gets.
void LineSocket::refuse_line() {
  diagnostics().Print("%d LineSocket::DataIndication - line of more than %d bytes, connection shut down",
                      seen(socket->s), linelen + 1);
  overlong_ = true;
  linelen = 0;
  socket->Shutdown();
}

OSIORetCode LineSocket::DataIndication(OSBuf* buf) {
  const int ceiling = seen(max_line_bytes);
  const UBYTE* byte = buf->data;
  const UBYTE* end = byte + buf->length;
  for (; byte != end && !overlong_; ++byte) {
    const char c = static_cast<char>(*byte);
    if (c == kLineFeed || *byte >= 128) continue;
    if (c != kCarriageReturn) {
      if (!append(c, ceiling)) refuse_line();
    } else if (line == nullptr && !grow(1, ceiling)) {
      refuse_line();
    } else {
      line[linelen] = '\0';
      Receive(line);
      linelen = 0;
    }
  }
  buf->Free();
  if (done) delete this;
  return Success;
}

OSIORetCode LineSocket::ConnectIndication(OSIOAddress* /*address*/) {
  overlong_ = false;
  return Success;
}

OSIORetCode LineSocket::DisconnectIndication(OSIOReason /*reason*/, int /*code*/) { return Success; }

void LineSocket::Receive(char* /*text*/) {}

// ---- Connecting --------------------------------------------------------------------------------------------

void LineSocket::Connect(SockAddr server) {
  overlong_ = false;
  socket->Connect(server);
}

void LineSocket::Connect(ULONG server, UWORD port) {
  overlong_ = false;
  socket->Connect(server, port);
}

void LineSocket::Connect(const char* server, UWORD port) {
  overlong_ = false;
  socket->Connect(server, port);
}

// ---- Sending -----------------------------------------------------------------------------------------------

OSIORetCode LineSocket::Send(OSBuf* buf) { return socket->DataIndication(buf); }

void LineSocket::Send(char* text) {
  std::size_t rest = std::strlen(text);
  const auto* from = reinterpret_cast<const UBYTE*>(text);
  while (rest > 0) {
    const std::size_t count = std::min(rest, kSendBytes);
    OSBuf* buf = OSBuf::Alloc(static_cast<int>(count));
    if (buf == nullptr) return;  // reported as fatal, with a console that goes on
    buf->PushData(from, static_cast<UWORD>(count));
    socket->DataIndication(buf);
    from += count;
    rest -= count;
  }
}

void LineSocket::SendF(char* format, ...) {
  constexpr std::size_t kUsual = 520;
  char usual[kUsual];
  va_list arguments;
  va_list again;
  va_start(arguments, format);
  va_copy(again, arguments);
  const int length = std::vsnprintf(usual, sizeof usual, format, arguments);
  va_end(arguments);

  const std::size_t needed = length < 0 ? 0 : static_cast<std::size_t>(length) + 1;
  std::unique_ptr<char[]> longer;
  if (needed > kUsual) {
    longer.reset(new (std::nothrow) char[needed]);
    if (longer != nullptr) std::vsnprintf(longer.get(), needed, format, again);
  }
  va_end(again);
  if (needed == 0) return;
  if (needed > kUsual && longer == nullptr) {
    diagnostics().Print("%d LineSocket::SendF - no memory for %d bytes", seen(socket->s), length);
    return;
  }
  Send(longer != nullptr ? longer.get() : usual);
}
