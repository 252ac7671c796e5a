// Holds a command line against the rows that describe kiv's commands, before a modem sees it. For
// the programs beside kiv: kiv itself checks what its commands check. Any thread.
#pragma once

#include <string>
#include <vector>

// What is wrong with the words behind "kiv", in one line that says what is wanted; empty when each
// is as its row has it. Categories 1 and 2, which do nothing, take any words.
std::string tervik_kiv_what_is_wrong(const std::vector<std::string>& words);
