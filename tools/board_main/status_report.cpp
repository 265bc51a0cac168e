#include "board_main/status_report.h"

#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>

namespace board_main {
namespace {

constexpr size_t kLineMax = 512;

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  char line[kLineMax];
  va_list arguments;
  va_start(arguments, format);
  (void)vsnprintf(line, sizeof(line), format, arguments);  // names are at most 255 characters
  va_end(arguments);
  return line;
}

/// Names are printable; two characters of those mean something in JSON.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string FillText(const QueueFill& queue) {
  if (!queue.exists) return "gone";
  return Format("%" PRIu64 " (%" PRIu64 "/%" PRIu64 " B)", queue.state.messages, queue.state.bytes,
                queue.state.bytesMax);
}

std::string FillJson(const QueueFill& queue) {
  if (!queue.exists) return "null";
  return Format("{\"messages\":%" PRIu64 ",\"bytes\":%" PRIu64 ",\"bytesMax\":%" PRIu64 "}",
                queue.state.messages, queue.state.bytes, queue.state.bytesMax);
}

std::string AppJson(const AppStatus& status) {
  const RegisteredApp& app = status.app;
  std::string modules;
  for (const uint16_t id : status.modules) modules += (modules.empty() ? "" : ",") + std::to_string(id);
  return "{\"name\":\"" + Escaped(app.name) + "\",\"version\":\"" + Escaped(app.version) + "\"," +
         Format(
             "\"pid\":%u,\"appId\":%u,\"supervised\":%s,\"timeoutS\":%u,\"beats\":%u,\"beatAgeMs\":%" PRIu64
             ",\"keptFrames\":%zu,",
             app.queue.pid, app.queue.moduleId, app.supervise ? "true" : "false", app.timeoutS, app.beats,
             status.beatAgeMs, status.keptFrames) +
         "\"queue\":" + FillJson(status.queue) + ",\"modules\":[" + modules + "]}";
}

}  // namespace

std::string IdRanges(const std::vector<uint16_t>& ids) {
  std::string text;
  for (size_t first = 0; first < ids.size();) {
    size_t last = first;
    while (last + 1 < ids.size() && ids[last + 1] == ids[last] + 1) ++last;
    if (!text.empty()) text += ' ';
    text += std::to_string(ids[first]);
    if (last != first) text += '-' + std::to_string(ids[last]);
    first = last + 1;
  }
  return text;
}

std::string StatusText(const PlatformStatus& status) {
  std::string text = Format("main process %u, queue ", status.pid) + FillText(status.queue) +
                     Format(", %zu frames for unknown modules, %" PRIu64 " lost, %u authorisations held\n",
                            status.keptUnknown, status.lostFrames, status.heldQuestions) +
                     Format("%-20s %7s %12s %-20s %s\n", "NAME", "PID", "HEART BEAT", "QUEUE", "MODULES");
  for (const AppStatus& each : status.apps) {
    std::string queue = FillText(each.queue);
    if (each.keptFrames != 0) queue += Format(" +%zu", each.keptFrames);
    text += Format("%-20s %7u %9.3f s  %-20s ", each.app.name.c_str(), each.app.queue.pid,
                   static_cast<double>(each.beatAgeMs) / 1000, queue.c_str()) +
            IdRanges(each.modules) + '\n';
  }
  return text;
}

std::string StatusJson(const PlatformStatus& status) {
  std::string apps;
  for (const AppStatus& each : status.apps) apps += (apps.empty() ? "" : ",") + AppJson(each);
  return Format("{\"pid\":%u,\"queue\":", status.pid) + FillJson(status.queue) +
         Format(",\"keptUnknown\":%zu,\"lostFrames\":%" PRIu64 ",\"heldQuestions\":%u,", status.keptUnknown,
                status.lostFrames, status.heldQuestions) +
         "\"apps\":[" + apps + "]}\n";
}

}  // namespace board_main
