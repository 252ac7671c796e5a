#include "command_text.h"

#include <sstream>
#include <string_view>

#include "commands_document.h"

namespace {

// The cells of a row; "\|" stands for a bar inside a cell.
std::vector<std::string> cells_of(std::string_view row) {
  std::vector<std::string> cells;
  std::string cell;
  for (size_t i = 1; i < row.size(); ++i) {
    if (row[i] == '\\' && i + 1 < row.size() && row[i + 1] == '|') {
      cell += row[++i];
    } else if (row[i] == '|') {
      cells.push_back(cell.size() > 2 ? cell.substr(1, cell.size() - 2) : cell);
      cell.clear();
    } else if (row[i] != '`') {
      cell += row[i];
    }
  }
  return cells;
}

// A row with the name of its column before each cell.
std::string entry_of(const std::string& row, const std::vector<std::string>& columns) {
  const std::vector<std::string> cells = cells_of(row);
  std::string entry;
  for (size_t i = 1; i < cells.size() && i < columns.size(); ++i) {
    entry += (i == 1 ? "" : "  ") + (i == 1 ? cells[0] : columns[i]);
    if (i == 1) {
      entry += "\n  " + columns[i];
    }
    entry += ": " + cells[i] + '\n';
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
      const std::string title = line.substr(3);
      in_section = !words.empty() && title.starts_with(words[0] + ' ');
      if (in_section || words.empty()) {
        text += title + '\n';
      }
    } else if (!in_section || line.starts_with("|--")) {
      continue;
    } else if (line.starts_with("| command |")) {
      columns = cells_of(line);
    } else if (line.starts_with('|')) {
      if (words.size() < 2 || cells_of(line)[0] == words[1]) {
        text += entry_of(line, columns);
      }
    } else if (words.size() < 2) {
      text += line + '\n';
    }
  }
  return text;
}
