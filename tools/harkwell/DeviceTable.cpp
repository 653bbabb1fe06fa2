#include "tools/harkwell/DeviceTable.h"

#include <algorithm>
#include <array>

#include "tools/harkwell/ConsumerText.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {
namespace {

constexpr std::array<const char*, 10> kHeader{"",   "ID",  "TYPE",         "NAME",      "TRANSPORT",
                                              "IN", "OUT", "INPUT SOURCE", "SUPPORTED", "UID"};
constexpr std::size_t kIDColumn = 1;
constexpr std::size_t kNameColumn = 3;
constexpr std::size_t kInColumn = 5;
constexpr std::size_t kOutColumn = 6;
constexpr std::size_t kSupportedColumn = 8;

bool IsNumberColumn(std::size_t column) {
  return column == kIDColumn || column == kInColumn || column == kOutColumn;
}

using Row = std::array<std::string, kHeader.size()>;

Row RowFor(const MediaDevice& device) {
  return Row{device.isRunning ? "*" : "",
             std::to_string(device.deviceID),
             std::string(caseName(device.mediaType)),
             EscapeForTerminal(device.name),
             std::string(caseName(device.transportType)),
             std::to_string(device.inputChannelCount),
             std::to_string(device.outputChannelCount),
             device.inputSourceName ? EscapeForTerminal(*device.inputSourceName) : "-",
             SupportText(device),
             EscapeForTerminal(device.deviceUID)};
}

std::string PadRight(std::string text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  if (used < width) text.append(width - used, ' ');
  return text;
}

std::string PadLeft(std::string text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  if (used < width) text.insert(0, width - used, ' ');
  return text;
}

}  // namespace

std::string SupportText(const MediaDevice& device) {
  return device.unsupportedReason ? std::string(caseName(*device.unsupportedReason)) : "yes";
}

void SortForDisplay(std::vector<MediaDevice>& devices) {
  std::stable_sort(devices.begin(), devices.end(), [](const MediaDevice& a, const MediaDevice& b) {
    if (a.mediaType != b.mediaType) return hashValue(a.mediaType) < hashValue(b.mediaType);
    return a.deviceID < b.deviceID;
  });
}

std::string RenderDeviceTable(const std::vector<MediaDevice>& devices, const Painter& painter,
                              bool withLegend,
                              const std::vector<std::vector<MediaDeviceConsumer>>& consumers) {
  if (devices.empty()) return {};

  std::vector<Row> rows;
  rows.reserve(devices.size());
  for (const auto& device : devices) rows.push_back(RowFor(device));

  std::array<std::size_t, kHeader.size()> widths{};
  for (std::size_t column = 0; column < kHeader.size(); ++column) {
    widths[column] = DisplayWidth(kHeader[column]);
    for (const auto& row : rows)
      widths[column] = std::max(widths[column], DisplayWidth(row[column]));
  }

  // Pads every cell but the last, then colours it, so escape codes never count as width.
  const auto renderLine = [&](const Row& cells, auto&& colourFor) {
    std::string line;
    for (std::size_t column = 0; column < cells.size(); ++column) {
      const bool last = column + 1 == cells.size();
      const std::string cell = last                     ? cells[column]
                               : IsNumberColumn(column) ? PadLeft(cells[column], widths[column])
                                                        : PadRight(cells[column], widths[column]);
      line += colourFor(column, cell);
      if (!last) line += "  ";
    }
    return line + "\n";
  };

  // Consumer lines start under the TYPE column, beside the device's ID.
  const auto consumerLines = ConsumerTableLines(consumers, widths[0] + 2 + widths[kIDColumn] + 2);

  Row header;
  std::copy(kHeader.begin(), kHeader.end(), header.begin());
  std::string table = renderLine(header, [&](std::size_t, const std::string& cell) {
    return painter.paint(cell, Colour::Bold);
  });
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const MediaDevice& device = devices[i];
    table += renderLine(rows[i], [&](std::size_t column, const std::string& cell) {
      if (device.isRunning && (column == 0 || column == kNameColumn)) {
        return painter.paint(cell, Colour::Green);
      }
      if (column == kSupportedColumn && device.unsupportedReason) {
        return painter.paint(cell, Colour::Dim);
      }
      return cell;
    });
    if (i < consumerLines.size()) table += consumerLines[i];
  }
  const bool anyRunning = std::any_of(devices.begin(), devices.end(),
                                      [](const MediaDevice& device) { return device.isRunning; });
  if (withLegend && anyRunning) table += "* running\n";
  return table;
}

}  // namespace harkwell::cli
