#include "server/CommandWords.h"

#include <filesystem>

namespace ReplayServer {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

bool SplitCommandWords(const std::string& line, std::vector<std::string>& words) {
    words.clear();
    size_t i = 0;
    while (true) {
        while (i < line.size() && IsBlank(line[i])) {
            ++i;
        }
        if (i == line.size()) {
            return true;
        }
        std::string word;
        if (line[i] != '"') {
            while (i < line.size() && !IsBlank(line[i])) {
                word += line[i++];
            }
            words.push_back(word);
            continue;
        }
        for (++i;; ++i) {
            if (i == line.size()) {
                return false;
            }
            if (line[i] == '"') {
                ++i;
                break;
            }
            if (line[i] == '\\' && i + 1 < line.size() &&
                (line[i + 1] == '"' || line[i + 1] == '\\')) {
                ++i;
            }
            word += line[i];
        }
        words.push_back(word);
    }
}

std::string QuoteCommandWord(const std::string& word) {
    bool plain = !word.empty() && word[0] != '"';
    for (char c : word) {
        plain = plain && !IsBlank(c) && c != '\\';
    }
    if (plain) {
        return word;
    }
    std::string quoted = "\"";
    for (char c : word) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

ReplayPlatform::Status SenderCommandLine(const std::vector<std::string>& arguments,
                                         std::string& line) {
    std::vector<std::string> words = arguments;
    if (arguments.size() == 1 && !SplitCommandWords(arguments[0], words)) {
        return ReplayPlatform::Status::Failure("unclosed quote in the command");
    }
    if (words.empty()) {
        return ReplayPlatform::Status::Failure("no command given");
    }
    if (words[0] == "replay") {
        // The file, and the report to write, are the sender's paths; other
        // options take plain values.
        const auto absolute = [](std::string& path) {
            std::error_code ignored;
            const std::filesystem::path full = std::filesystem::absolute(path, ignored);
            if (!full.empty()) {
                path = full.lexically_normal().string();
            }
        };
        bool fileSeen = false;
        for (size_t i = 1; i < words.size(); ++i) {
            if (words[i] == "--report" && i + 1 < words.size()) {
                absolute(words[++i]);
            } else if (words[i] == "--segment" || words[i] == "--from" || words[i] == "--to" ||
                       words[i] == "--clients") {
                ++i;
            } else if (!fileSeen && !words[i].empty() && words[i][0] != '-') {
                absolute(words[i]);
                fileSeen = true;
            }
        }
    }
    line.clear();
    for (const std::string& word : words) {
        line += (line.empty() ? "" : " ") + QuoteCommandWord(word);
    }
    return ReplayPlatform::Status::Ok();
}

}  // namespace ReplayServer
