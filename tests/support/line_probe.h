/// A line socket that writes down what it is told.
#ifndef OSKERNEL_TESTS_LINE_PROBE_H
#define OSKERNEL_TESTS_LINE_PROBE_H

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "network/asocket.h"

namespace oskernel_test {

/// Its records may be read by any thread.
class ProbeLine : public LineSocket {
 public:
  using Hook = std::function<void(char* text)>;

  /// `deleted` is counted up when the line is destroyed.
  explicit ProbeLine(int max_line, int* deleted = nullptr) : LineSocket(max_line), deleted_(deleted) {}
  ~ProbeLine() override {
    if (deleted_ != nullptr) ++*deleted_;
  }

  /// Frees the socket and takes another, which does nothing: from now on nobody calls this line, and it can be
  /// destroyed beside a thread that dispatches. From a thread that is not inside one of its calls.
  void let_socket_go() {
    socket->Free();
    socket = new AsyncSocket(true);
  }

  /// Runs inside Receive, behind the record. Set before there is traffic.
  void set_hook(Hook hook) { hook_ = std::move(hook); }

  void Receive(char* text) override {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(text);
      whole_lines_.emplace_back(text, static_cast<std::size_t>(linelen));
    }
    if (hook_) hook_(text);
  }
  OSIORetCode ConnectIndication(OSIOAddress* address) override {
    const OSIORetCode result = LineSocket::ConnectIndication(address);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++connects_;
    return result;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    const OSIORetCode result = LineSocket::DisconnectIndication(reason, code);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++disconnects_;
    last_reason_ = reason;
    last_code_ = code;
    return result;
  }

  /// The lines as texts, up to their first zero byte.
  std::vector<std::string> lines() const { return locked(lines_); }
  /// The lines as long as they were collected.
  std::vector<std::string> whole_lines() const { return locked(whole_lines_); }
  int connects() const { return locked(connects_); }
  int disconnects() const { return locked(disconnects_); }
  OSIOReason last_reason() const { return locked(last_reason_); }
  int last_code() const { return locked(last_code_); }

 private:
  template <class Value>
  Value locked(const Value& value) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<std::string> whole_lines_;
  int connects_ = 0;
  int disconnects_ = 0;
  OSIOReason last_reason_ = Busy;
  int last_code_ = 0;
  int* deleted_;
  Hook hook_;
};

}  // namespace oskernel_test

#endif
