/// RFC 1006 reassembly, any stream in any segments, beside a reference that looks at one byte after the other.
///
/// Flags: bit 0: a subclass takes the packets; without it they go through the receive queue to the layer above, which
/// has its turn when the input says so, with flow control.
#ifndef OSKERNEL_FUZZ_TPKT_TARGET_H
#define OSKERNEL_FUZZ_TPKT_TARGET_H

#include <vector>

#include "fuzz/segments.h"

namespace oskernel_fuzz {

/// What RFC 1006 section 6 and the comments in tpkt.h say, with one state per byte.
class ReferenceReassembler {
 public:
  explicit ReferenceReassembler(bool queued) : queued_(queued) {}

  /// Whether a segment may come: the last one has been used up and the queue is not full.
  bool can_receive() const { return segment_.empty() && !blocked_; }
  void receive(const std::string& segment) {
    segment_ = segment;
    consume();
  }
  /// The layer above takes all that is queued.
  void dispatch() {
    for (const std::string& item : queue_) {
      if (item != "packet ") indicated_.push_back(item);  // an empty packet indicates nothing
    }
    queue_.clear();
    blocked_ = false;
    consume();
  }
  bool idle() const { return queue_.empty() && segment_.empty(); }
  std::size_t queued() const { return queue_.size(); }
  const std::vector<std::string>& indicated() const { return indicated_; }

 private:
  static constexpr std::size_t kHeader = 4;
  static constexpr std::size_t kFullQueue = 9;

  void consume() {
    std::size_t used = 0;
    while (used < segment_.size() && !blocked_) {
      // A packet of nothing but its header, which ended a segment, is complete now that another has come.
      if (packet_.size() == kHeader && length() == kHeader) {
        complete();
        continue;
      }
      packet_.push_back(segment_[used++]);
      if (packet_.size() == 1 && packet_[0] != 3) return fail();
      if (packet_.size() < kHeader) continue;
      if (length() < kHeader) return fail();
      if (packet_.size() == length() && (length() > kHeader || used < segment_.size())) complete();
    }
    segment_.erase(0, used);
  }
  std::size_t length() const {
    return static_cast<std::size_t>(static_cast<UBYTE>(packet_[2])) << 8U | static_cast<UBYTE>(packet_[3]);
  }
  void complete() {
    const std::string item = "packet " + packet_.substr(kHeader);
    packet_.clear();
    if (!queued_) {
      indicated_.push_back(item);
      return;
    }
    queue_.push_back(item);
    if (queue_.size() > kFullQueue) blocked_ = true;
  }
  /// The connection is closed, what waits is dropped, and so is the rest of the segment.
  void fail() {
    packet_.clear();
    segment_.clear();
    queue_.clear();
    queue_.push_back("failed 0");
  }

  const bool queued_;
  bool blocked_ = false;
  std::string segment_;
  std::string packet_;  // from its header on
  std::vector<std::string> queue_;
  std::vector<std::string> indicated_;
};

class RecordingPartner : public OSIO {
 public:
  explicit RecordingPartner(std::vector<std::string>* story) : story_(story) {}
  OSIORetCode DataIndication(OSBuf* buf) override {
    story_->push_back("packet " + text_of(*buf));
    buf->Free();
    return Success;
  }
  OSIORetCode ConnectIndication(OSIOAddress* /*address*/) override {
    story_->push_back("connected");
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    story_->push_back((reason == Failed ? "failed " : "ended ") + std::to_string(code));
    return Success;
  }

 private:
  std::vector<std::string>* story_;
};

class WatchedTPKTSocket : public TPKTSocket {
 public:
  WatchedTPKTSocket(bool takes_packets, std::vector<std::string>* story)
      : takes_packets_(takes_packets), story_(story) {
    type = SOCK_STREAM;
    receive_started = true;
  }
  void TPKTReceive(OSBuf* buf) override {
    if (!takes_packets_) {
      TPKTSocket::TPKTReceive(buf);
      return;
    }
    story_->push_back("packet " + text_of(*buf));
    buf->Free();
  }
  /// What the monitor thread does, in its section.
  void receive(const std::string& segment) {
    EnterCriticalSection(&cs);
    ProcessData(received_buffer(segment));
    LeaveCriticalSection(&cs);
  }
  void go_on() {
    EnterCriticalSection(&cs);
    Poll();
    LeaveCriticalSection(&cs);
  }
  bool can_receive() const { return lastBuf == nullptr && !dont_read; }
  bool idle() { return lastBuf == nullptr && q.IsEmpty(); }

 private:
  bool takes_packets_;
  std::vector<std::string>* story_;
};

inline std::string shown(const std::vector<std::string>& story) {
  std::string text = std::to_string(story.size()) + " indications:";
  for (const std::string& item : story) text += "\n    " + std::to_string(item.size()) + " bytes: " + item;
  return text;
}

inline int run_tpkt(const std::uint8_t* input, std::size_t size) {
  Kernel::start();
  const Inventory before;
  SegmentedStream stream(input, size);
  const bool takes_packets = (stream.flags() & 1U) != 0;

  std::vector<std::string> story;
  ReferenceReassembler reference(!takes_packets);
  RecordingPartner partner(&story);
  auto* socket = new WatchedTPKTSocket(takes_packets, &story);
  socket->Bind(&partner);
  const auto dispatch = [&] {
    while (!socket->q.IsEmpty()) os_check_triggers();
    socket->go_on();
    reference.dispatch();
  };
  while (!stream.at_end()) {
    expect(socket->can_receive() == reference.can_receive(), "flow control stops reading where it should");
    if (!reference.can_receive()) {
      dispatch();
      continue;
    }
    const std::string segment = stream.next();
    socket->receive(segment);
    reference.receive(segment);
    expect(static_cast<std::size_t>(socket->q.Size()) == reference.queued(), "no more is cut than may wait");
    if (stream.turn_of_layer()) dispatch();
  }
  while (!socket->idle() || !reference.idle()) dispatch();
  if (story != reference.indicated()) report("packets differ", shown(story), shown(reference.indicated()));

  socket->UnBind();
  socket->Free();
  before.check();
  return 0;
}

}  // namespace oskernel_fuzz

#endif
