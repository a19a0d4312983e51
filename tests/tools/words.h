// Command lines and lists of names, written as one text.
#pragma once

#include <sstream>
#include <string>
#include <vector>

// What stands between the blanks.
inline std::vector<std::string> Words(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}
