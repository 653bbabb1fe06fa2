#include "tools/harkwell/ConsumerText.h"

#include <algorithm>
#include <array>

#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

// One line of the table: who (indented when fed), process ID, kind, and what /proc told.
using ConsumerRow = std::array<std::string, 4>;

std::string ProcessDetail(const MediaDeviceConsumer& consumer) {
  std::string detail;
  if (consumer.executablePath) {
    detail = EscapeForTerminal(*consumer.executablePath);
  } else if (consumer.processName) {
    detail = EscapeForTerminal(*consumer.processName);
  }
  if (consumer.sandbox != MediaDeviceConsumerSandbox::None) {
    if (!detail.empty()) detail += "  ";
    detail += caseName(consumer.sandbox);
    if (consumer.sandboxApplicationID) {
      detail += " " + EscapeForTerminal(*consumer.sandboxApplicationID);
    }
  }
  return detail;
}

void AddRows(const std::vector<MediaDeviceConsumer>& consumers, std::size_t depth,
             std::vector<ConsumerRow>& rows) {
  for (const auto& consumer : consumers) {
    std::string who = depth == 0 ? std::string() : std::string(2 * depth, ' ') + "-> ";
    who += ConsumerDisplayName(consumer);
    rows.push_back({std::move(who), ConsumerProcessText(consumer),
                    std::string(caseName(consumer.kind)), ProcessDetail(consumer)});
    AddRows(consumer.feeds, depth + 1, rows);
  }
}

std::string Padded(std::string text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  if (used < width) text.append(width - used, ' ');
  return text;
}

void AppendSummary(const MediaDeviceConsumer& consumer, std::string& text) {
  text += ConsumerDisplayName(consumer) + " (" + ConsumerProcessText(consumer);
  if (consumer.kind != MediaDeviceConsumerKind::Application) {
    text += ", ";
    text += caseName(consumer.kind);
  }
  text += ")";
  if (consumer.feeds.empty()) return;
  text += " -> [";
  for (std::size_t i = 0; i < consumer.feeds.size(); ++i) {
    if (i > 0) text += ", ";
    AppendSummary(consumer.feeds[i], text);
  }
  text += "]";
}

}  // namespace

std::string ConsumerDisplayName(const MediaDeviceConsumer& consumer) {
  for (const auto* name :
       {&consumer.applicationName, &consumer.processName, &consumer.executablePath}) {
    if (*name && !(*name)->empty()) return EscapeForTerminal(**name);
  }
  return "unknown process";
}

std::string ConsumerProcessText(const MediaDeviceConsumer& consumer) {
  if (consumer.processID < 0) return "pid unknown";
  const std::string pid = "pid " + std::to_string(consumer.processID);
  return consumer.isProcessIDVerified ? pid : "claimed " + pid;
}

std::vector<std::string> ConsumerTableLines(
    const std::vector<std::vector<MediaDeviceConsumer>>& lists, std::size_t indent) {
  std::vector<std::vector<ConsumerRow>> rowsOfLists;
  std::array<std::size_t, 3> widths{};
  for (const auto& consumers : lists) {
    auto& rows = rowsOfLists.emplace_back();
    AddRows(consumers, 0, rows);
    for (const auto& row : rows) {
      for (std::size_t column = 0; column < widths.size(); ++column) {
        widths[column] = std::max(widths[column], DisplayWidth(row[column]));
      }
    }
  }
  std::vector<std::string> texts;
  for (const auto& rows : rowsOfLists) {
    std::string text;
    for (const auto& row : rows) {
      std::string line(indent, ' ');
      for (std::size_t column = 0; column < widths.size(); ++column) {
        line += Padded(row[column], widths[column]) + "  ";
      }
      line += row[3];
      // Without a detail the padding of the kind column would trail the line.
      line.erase(line.find_last_not_of(' ') + 1);
      text += line + "\n";
    }
    texts.push_back(std::move(text));
  }
  return texts;
}

std::string ConsumersSummary(const std::vector<MediaDeviceConsumer>& consumers) {
  if (consumers.empty()) return "used by nobody";
  std::string text = "used by ";
  for (std::size_t i = 0; i < consumers.size(); ++i) {
    if (i > 0) text += ", ";
    AppendSummary(consumers[i], text);
  }
  return text;
}

}  // namespace harkwell::cli
