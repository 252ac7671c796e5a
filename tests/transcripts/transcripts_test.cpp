// Holds the golden texts against what the tool prints and logs. `scripts/transcripts` writes them
// anew; the difference is for a person to read.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "tests/support/state_directory_fixture.h"
#include "tests/transcripts/transcript.h"

namespace kiv::test {

namespace {

Strings lines_of_file(const std::string& name) {
  return split(read_file_text(std::string(KIV_GOLDEN_DIR) + "/" + name + ".txt"), "\n");
}

// ---- folding: what makes the golden texts short without making them vague ----

// What stands before a line's own text: thread, class, subscription, sinks and function of a
// statement, the mark of a plain line or of a file, the '{' of a block's name. Empty if the line
// stays alone.
std::string place_of(const std::string& line) {
  for (const char* mark : {"{", " > ", " left "}) {
    if (line.starts_with(mark)) return mark;
  }
  const size_t end = line.find(": ");
  const bool is_statement =
      end != std::string::npos && line[0] != '#' && line.substr(0, end).find("  ") < end;
  return is_statement ? line.substr(0, end + 2) : "";
}

bool is_time(const std::string& line) {
  return line.starts_with(" +");
}

constexpr const char* kBetween = " | ";

// Lines of one place share a line of the golden text as long as it stays short, and the names of
// blocks stand behind what they follow; so does the time that passes.
Strings join_places(const Strings& lines) {
  constexpr size_t kWidth = 180;
  Strings joined;
  std::string last_place;
  for (const std::string& line : lines) {
    if ((is_time(line) || line.starts_with(" => ")) && !joined.empty()) {
      joined.back() += " |" + line;
      continue;
    }
    const std::string place = place_of(line);
    const std::string text = kBetween + line.substr(place == "{" ? 0 : place.size());
    const bool fits = !joined.empty() && joined.back().size() + text.size() <= kWidth;
    if (fits && !place.empty() && (place == last_place || (place == "{" && !last_place.empty()))) {
      joined.back() += text;
    } else {
      joined.push_back(line);
    }
    last_place = place;
  }
  return joined;
}

void split_places(const std::string& line, Strings& lines) {
  const std::string place = place_of(line);
  std::string rest = line;
  for (bool last = false; !last;) {
    const size_t end = rest.find(kBetween);
    last = end == std::string::npos;
    const std::string part = rest.substr(0, end);
    rest.erase(0, last ? end : end + strlen(kBetween));
    const bool whole = part.starts_with(place) || part.starts_with('{');
    lines.push_back(is_time(" " + part) ? " " + part : whole ? part : place + part);
  }
}

// Sequences that come again and again have a name each, in a golden text of their own. The name
// and the lines may hold $1 to $9: a word each, which the name shows. A sequence may hold the names
// of those above it.
struct Block {
  std::string name;
  Strings lines;
};

std::vector<Block> read_blocks() {
  std::vector<Block> blocks;
  for (const std::string& line : lines_of_file("blocks")) {
    if (line.starts_with("# ")) {
      blocks.push_back({line.substr(2), {}});
    } else if (!blocks.empty() && !line.empty()) {
      split_places(line, blocks.back().lines);
    }
  }
  return blocks;
}

using Words = std::array<std::string, 10>;

// A word ends at a blank or a sign, or at the character that follows it in the pattern.
bool matches(std::string_view pattern, std::string_view line, Words& words) {
  while (!pattern.empty()) {
    if (pattern[0] != '$' || pattern.size() < 2 || isdigit(pattern[1]) == 0) {
      if (line.empty() || line[0] != pattern[0]) return false;
      pattern.remove_prefix(1);
      line.remove_prefix(1);
      continue;
    }
    std::string& known = words[static_cast<size_t>(pattern[1] - '0')];
    pattern.remove_prefix(2);
    const std::string ends = std::string(" ,:;)}") + (pattern.empty() ? ' ' : pattern[0]);
    const std::string_view word = line.substr(0, line.find_first_of(ends));
    if (word.empty() || (!known.empty() && known != word)) return false;
    known = word;
    line.remove_prefix(word.size());
  }
  return line.empty();
}

bool block_is_at(const Block& block, const Strings& lines, size_t begin, Words& words) {
  if (begin + block.lines.size() > lines.size()) return false;
  for (size_t i = 0; i < block.lines.size(); ++i) {
    if (!matches(block.lines[i], lines[begin + i], words)) return false;
  }
  return true;
}

Strings name_blocks(Strings lines) {
  static const std::vector<Block> blocks = read_blocks();
  for (const Block& block : blocks) {
    Strings named;
    for (size_t i = 0; i < lines.size();) {
      Words words;
      if (!block_is_at(block, lines, i, words)) {
        named.push_back(lines[i++]);
        continue;
      }
      std::string name = block.name;
      for (size_t at = 0; (at = name.find('$', at)) != std::string::npos;) {
        name.replace(at, 2, words[static_cast<size_t>(name[at + 1] - '0')]);
      }
      named.push_back(name);
      i += block.lines.size();
    }
    lines = named;
  }
  return lines;
}

// A line and the numbers in it.
struct Counted {
  std::string text;
  std::vector<long> numbers;
};

Counted counted(const std::string& line) {
  Counted result;
  for (size_t i = 0; i < line.size();) {
    size_t end = i;
    while (end < line.size() && isdigit(static_cast<unsigned char>(line[end])) != 0) ++end;
    if (end == i || end - i > 9) {
      result.text += line[i++];
      continue;
    }
    result.text += '#';
    result.numbers.push_back(std::stol(line.substr(i, end - i)));
    i = end;
  }
  return result;
}

// How often the `length` lines at `begin` come in a row, with numbers that stay or go on in equal
// steps.
size_t repetitions(const std::vector<Counted>& lines, size_t begin, size_t length) {
  size_t count = 1;
  for (;; ++count) {
    for (size_t i = 0; i < length; ++i) {
      const size_t place = begin + count * length + i;
      if (place >= lines.size()) return count;
      const Counted& first = lines[begin + i];
      const Counted& second = lines[begin + length + i];
      const Counted& other = lines[place];
      if (other.text != first.text) return count;
      for (size_t j = 0; j < other.numbers.size(); ++j) {
        const long step = second.numbers[j] - first.numbers[j];
        if (other.numbers[j] != first.numbers[j] + step * static_cast<long>(count)) return count;
      }
    }
  }
}

// Of a loop's lines the first two rounds, and how many rounds there are.
Strings fold_loops(const Strings& lines) {
  std::vector<Counted> all;
  for (const std::string& line : lines) all.push_back(counted(line));
  Strings folded;
  for (size_t i = 0; i < lines.size();) {
    size_t best_length = 0;
    size_t best_count = 0;
    for (size_t length = 1; length <= 16; ++length) {
      const size_t count = repetitions(all, i, length);
      if (count >= 4 && (count - 2) * length >= 12 && count * length > best_count * best_length) {
        best_length = length;
        best_count = count;
      }
    }
    const size_t shown = best_count == 0 ? 1 : 2 * best_length;
    folded.insert(folded.end(), lines.begin() + static_cast<std::ptrdiff_t>(i),
                  lines.begin() + static_cast<std::ptrdiff_t>(i + shown));
    if (best_count != 0) {
      folded.push_back(" ... and so on, " + std::to_string(best_count) + " times in all");
    }
    i += best_count == 0 ? 1 : best_count * best_length;
  }
  return folded;
}

// ---- the golden texts ----

std::string heading_of(const Scenario& scenario) {
  if (scenario.line == nullptr) return std::string("# ") + scenario.about;
  std::string heading = std::string("# kiv ") + scenario.line;
  const auto given = [&heading](const char* name, const char* value) {
    if (*value != '\0') heading += std::string(" [") + name + ": " + value + "]";
  };
  given("modem.conf", scenario.modem);
  given("properties", scenario.properties);
  given("files", scenario.files);
  return heading + ": " + scenario.about;
}

// Each run begins with the same block: only a run that does not shows how it begins.
Strings without_start(Strings lines) {
  bool begins = true;
  std::erase_if(lines, [&begins](const std::string& line) {
    const bool left_out = begins && line == "{start}";
    begins = line.starts_with("$ kiv");
    return left_out;
  });
  return lines;
}

Strings body_of(const Scenario& scenario) {
  return join_places(without_start(name_blocks(fold_loops(name_blocks(record(scenario).lines)))));
}

// Neighbours that print the same share it.
Strings sections_of(const ScenarioTable& table) {
  Strings lines;
  Strings last_body;
  for (const Scenario& scenario : table.scenarios) {
    const Strings body = body_of(scenario);
    if (body == last_body) lines.resize(lines.size() - body.size());
    lines.push_back(heading_of(scenario));
    lines.insert(lines.end(), body.begin(), body.end());
    last_body = body;
  }
  return lines;
}

class Transcripts : public ::testing::TestWithParam<size_t> {};

TEST_P(Transcripts, AreAsTheGoldenTextsHaveThem) {
  const ScenarioTable& table = scenario_tables()[GetParam()];
  const Strings lines = sections_of(table);
#ifdef __SANITIZE_THREAD__
  // Nothing is recorded there: ThreadSanitizer has looked at every run, and ends one with a status.
  for (const std::string& line : lines) EXPECT_FALSE(line.starts_with("ended with")) << line;
  return;
#endif
  if (getenv("KIV_REWRITE_TRANSCRIPTS") != nullptr) {
    std::ofstream file(std::string(KIV_GOLDEN_DIR) + "/" + table.name + ".txt");
    for (const std::string& line : lines) file << line << "\n";
    return;
  }
  const Strings golden = lines_of_file(table.name);
  const auto differ = std::ranges::mismatch(lines, golden);
  EXPECT_EQ(Strings(differ.in1, lines.end()), Strings(differ.in2, golden.end()))
      << "from line " << differ.in1 - lines.begin() + 1 << " on";
}

INSTANTIATE_TEST_SUITE_P(Kiv, Transcripts, ::testing::Range(size_t{0}, scenario_tables().size()),
                         [](const auto& each) { return scenario_tables()[each.param].name; });

}  // namespace
}  // namespace kiv::test
