#include "document_rows.h"

#include <sstream>
#include <string_view>

#include "documents.h"

namespace {

// The cells of a table's row, without back quotes; "\|" stands for a bar inside a cell.
std::vector<std::string> cells_of(std::string_view row) {
  std::vector<std::string> cells;
  std::string cell;
  for (size_t i = 2; i < row.size(); ++i) {
    if (row[i] == '\\' && row.substr(i + 1).starts_with('|')) {
      cell += row[++i];
    } else if (row[i] == '|') {
      cells.push_back(cell.substr(0, cell.size() - 1));
      cell.clear();
      ++i;
    } else if (row[i] != '`') {
      cell += row[i];
    }
  }
  return cells;
}

// A row with the name of its column before each cell but the first.
std::string entry_of(const std::vector<std::string>& cells,
                     const std::vector<std::string>& columns) {
  std::string entry = cells[0] + '\n';
  for (size_t i = 1; i < cells.size() && i < columns.size(); ++i) {
    entry.append("  ").append(columns[i]).append(": ").append(cells[i]).append("\n");
  }
  return entry;
}

}  // namespace

std::string command_text(const std::vector<std::string>& words) {
  std::istringstream document(COMMANDS_DOCUMENT);
  std::vector<std::string> columns;
  std::string text;
  bool in_section = false;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("## ")) {
      in_section = !words.empty() && line.starts_with("## " + words[0] + ' ');
      text += in_section || words.empty() ? line.substr(3) + '\n' : "";
    } else if (in_section && line.starts_with("| ")) {
      const std::vector<std::string> cells = cells_of(line);
      if (cells[0] == "command") {
        columns = cells;
      } else if (words.size() < 2 || cells[0] == words[1]) {
        text += entry_of(cells, columns);
      }
    } else if (in_section && words.size() < 2 && !line.starts_with("|")) {
      text += line + '\n';
    }
  }
  return words.size() > 1 && text.find('\n') + 1 == text.size() ? "" : text;  // a title alone
}

error_meaning meaning_of(int code, const std::string& category, const std::string& command) {
  std::istringstream document(MEANING_DOCUMENT);
  const std::string start = "| " + std::to_string(code) + " | ";
  const std::string wanted[] = {" all ", ' ' + category + ' ',
                                ' ' + category + '.' + command + ' '};
  for (std::string line; std::getline(document, line);) {
    if (!line.starts_with(start)) {
      continue;
    }
    const std::vector<std::string> cells = cells_of(line);
    const std::string places = ' ' + cells[1] + ' ';
    for (const std::string& place : wanted) {
      if (places.find(place) != std::string::npos) {
        return {cells[2], cells[3], cells[4]};
      }
    }
  }
  return {};
}
