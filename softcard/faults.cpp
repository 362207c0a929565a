#include "softcard/faults.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "softcard/files.h"
#include "softcard/readers.h"

namespace qixx::softcard {
namespace {

/// Between two looks whether a function is to come back.
constexpr std::chrono::milliseconds kHangPause(20);

std::vector<Setting> ReadOrders() {
  const Descriptor folder(OpenFolder(SoftcardFolder()));
  if (!folder.IsOpen()) return {};
  return ReadSettings(ReadSmallFile(folder.Get(), "module").value_or(""));
}

/// One write, so that the lines of two processes do not mix. A log that cannot be written is lost.
void LogCall(std::string_view function) {
  const Descriptor folder(OpenFolder(SoftcardFolder()));
  const Descriptor log(::openat(folder.Get(), "calls",
                                O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                0666));
  if (!log.IsOpen()) return;
  const std::string line = std::string(function) + "\n";
  [[maybe_unused]] const ssize_t written = ::write(log.Get(), line.data(), line.size());
}

/// The value of "FUNCTION:VALUE" when it is about this function.
std::optional<CK_RV> PrescribedFor(std::string_view function, std::string_view order) {
  if (!order.starts_with(function) || !order.substr(function.size()).starts_with(':')) return {};
  return ReadNumber(order.substr(function.size() + 1));
}

}  // namespace

std::vector<Setting> Misbehave(std::string_view function) {
  for (;;) {
    std::vector<Setting> orders = ReadOrders();
    bool hangs = false;
    for (const Setting& order : orders) {
      if (order.value != function) continue;
      if (order.name == "throw") throw std::runtime_error(std::string(function));
      if (order.name == "exit") ::pthread_exit(nullptr);
      hangs = hangs || order.name == "hang";
    }
    if (!hangs) return orders;
    std::this_thread::sleep_for(kHangPause);
  }
}

std::optional<CK_RV> NoteCall(std::string_view function, const std::vector<Setting>& orders) {
  std::optional<CK_RV> fault;
  for (const Setting& order : orders) {
    if (order == Setting{"log", "1"}) LogCall(function);
    if (order.name == "fail" && !fault) fault = PrescribedFor(function, order.value);
  }
  return fault;
}

bool IsOmitted(std::string_view function) {
  const std::vector<Setting> orders = ReadOrders();
  return std::ranges::find(orders, Setting{"omit", std::string(function)}) != orders.end();
}

}  // namespace qixx::softcard
