// SPDX-License-Identifier: MIT
#include "complete.h"

#include <string_view>

#include "commands/commands.h"
#include "core/command.h"
#include "core/failure.h"

namespace tool {

namespace {

struct Candidate {
    std::string word;
    const char *meaning = "";
};
using Candidates = std::vector<Candidate>;

bool beginsWith(std::string_view text, std::string_view start) { return text.substr(0, start.size()) == start; }

// The command line up to the word that is to be completed.
class Before {
public:
    explicit Before(const std::vector<std::string> &words) {
        for (size_t i = 0; i + 1 < words.size(); ++i) take(words[i]);
    }

    Candidates candidates(const std::string &current) const {
        if (pending_ != nullptr) return valuesOf(pending_->words);
        if (!afterOptions_ && beginsWith(current, "-")) return options();
        if (command_ == nullptr) return unknown_ ? Candidates() : commands();
        if (verb_ == nullptr) return unknown_ ? Candidates() : verbs();
        if (runsCommand_) return {{commandWords_ == 0 ? ":program" : ":file"}};
        return argument();
    }

private:
    void take(const std::string &word) {
        if (pending_ != nullptr) {
            given_.add(*pending_, word.c_str());
            pending_ = nullptr;
        } else if (!afterOptions_ && word == "--") {
            afterOptions_ = true;
            runsCommand_ =
                verb_ != nullptr && !verb_->arguments.empty() && verb_->arguments.back().count == Count::command;
        } else if (runsCommand_) {
            ++commandWords_;
        } else if (!afterOptions_ && word.size() > 1 && word[0] == '-') {
            takeOption(word);
        } else {
            takeWord(word);
        }
    }

    void takeOption(const std::string &word) {
        const size_t equals = word.find('=');
        for (const Option *option : optionsOf(command_, verb_)) {
            const bool isLong = word.substr(0, equals) == std::string("--") + option->name;
            const bool isShort = option->letter != 0 && word == std::string("-") + option->letter;
            if (!isLong && !isShort) continue;
            if (option->value == nullptr) {
                given_.add(*option, "");
            } else if (equals == std::string::npos) {
                pending_ = option;
            } else {
                given_.add(*option, word.c_str() + equals + 1);
            }
        }
    }

    void takeWord(const std::string &word) {
        if (command_ == nullptr) {
            command_ = findCommand(word);
            unknown_ = command_ == nullptr;
            if (!unknown_ && !command_->hasVerbs()) verb_ = command_->verbs.data();
        } else if (verb_ == nullptr) {
            verb_ = findVerb(*command_, word);
            unknown_ = verb_ == nullptr;
        } else {
            ++arguments_;
        }
    }

    Candidates valuesOf(Words words) const {
        Candidates found;
        if (words == nullptr) return found;
        for (std::string &word : words(given_)) found.push_back({std::move(word)});
        return found;
    }

    Candidates options() const {
        Candidates found;
        for (const Option *option : optionsOf(command_, verb_))
            found.push_back({std::string("--") + option->name, option->help});
        return found;
    }

    static Candidates commands() {
        Candidates found;
        for (const Command *command : allCommands) found.push_back({command->name, command->summary});
        return found;
    }

    Candidates verbs() const {
        Candidates found;
        for (const Verb &verb : command_->verbs) found.push_back({verb.name, verb.summary});
        return found;
    }

    Candidates argument() const {
        size_t left = arguments_;
        for (const Argument &argument : verb_->arguments) {
            if (argument.count == Count::command) break;
            const bool repeats = argument.count == Count::any || argument.count == Count::many;
            if (repeats || left-- == 0) return valuesOf(argument.words);
        }
        return {};
    }

    const Command *command_ = nullptr;
    const Verb *verb_ = nullptr;
    const Option *pending_ = nullptr;
    bool unknown_ = false;
    bool afterOptions_ = false;
    bool runsCommand_ = false;
    size_t arguments_ = 0;
    size_t commandWords_ = 0;  // of another program's command line
    Arguments given_;
};

}  // namespace

int complete(const std::vector<std::string> &words) {
    Output out;
    const std::string current = words.empty() ? std::string() : words.back();
    try {
        for (const Candidate &candidate : Before(words).candidates(current)) {
            const bool forShell = beginsWith(candidate.word, ":");
            // What a shell cannot be handed in one line is not offered.
            if (candidate.word.find_first_of("\n\t") != std::string::npos) continue;
            if (!forShell && !beginsWith(candidate.word, current)) continue;
            out.write(candidate.word + (*candidate.meaning != '\0' ? std::string("\t") + candidate.meaning : "") +
                      "\n");
        }
    } catch (const Failure &) {
        // What cannot be read offers nothing.
    }
    out.flush();
    return statusDone;
}

}  // namespace tool
