// SPDX-License-Identifier: MIT
#include "gateway/core/scenario.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

#include "gateway/core/json.h"

namespace vxgateway {

namespace {

// A line's words and the column of each, from 1.
struct Line {
    size_t number = 0;
    Words words;
    std::vector<size_t> columns;
    size_t end = 1;

    explicit Line(const std::string &text, size_t lineNumber) : number(lineNumber) {
        for (size_t at = 0; (at = text.find_first_not_of(" \t\r", at)) != std::string::npos;) {
            if (words.empty() && text[at] == '#') break;
            const size_t after = std::min(text.find_first_of(" \t\r", at), text.size());
            words.push_back(text.substr(at, after - at));
            columns.push_back(at + 1);
            at = after;
        }
        end = columns.empty() ? 1 : columns.back() + words.back().size();
    }
    size_t column(size_t word) const { return word < columns.size() ? columns[word] : end; }
};

class Reader {
public:
    explicit Reader(std::string name) { scenario_.name = std::move(name); }

    Scenario read(const std::string &text) {
        std::istringstream lines(text);
        size_t number = 0;
        for (std::string one; std::getline(lines, one);) {
            const Line line(one, ++number);
            if (!line.words.empty()) take(line);
        }
        if (repeats_ > 0) complain(repeatLine_, 1, "\"repeat\" without \"end\"");
        if (scenario_.question.empty()) complain(1, 1, "missing: question");
        if (!problems_.empty()) throw std::runtime_error(problems_);
        return std::move(scenario_);
    }

private:
    void take(const Line &line) {
        const std::string &word = line.words[0];
        if (word == "question") {
            takeQuestion(line);
        } else if (word == "at") {
            takeOrder(line);
        } else if (word == "when" || word == "expect") {
            takeCondition(line);
        } else if (word == "repeat") {
            takeRepeat(line);
        } else if (word == "end") {
            takeEnd(line);
        } else {
            complain(line, 0, "unknown word '" + word + "', expected question, at, when, expect, repeat or end");
        }
    }

    void takeQuestion(const Line &line) {
        if (line.words.size() < 2) return complain(line, 1, "missing: TEXT");
        scenario_.question += (scenario_.question.empty() ? "" : " ") + join(line.words, 1, line.words.size());
    }

    void takeOrder(const Line &line) {
        if (line.words.size() < 2) return complain(line, 1, "missing: SECONDS");
        const auto time = seconds(line.words[1]);
        if (!time) return complain(line, 1, "SECONDS is seconds from 0 to 86400, not '" + line.words[1] + "'");
        if (line.words.size() < 3) return complain(line, 2, "missing: an order of gw");
        if (const auto problem = check(Group::order, line.words, 2))
            return complain(line, problem->word, problem->message);
        if (*time < time_) return complain(line, 1, "earlier than the line before it");
        time_ = *time;
        add({Step::Kind::at, line.number, Words(line.words.begin() + 2, line.words.end()), *time});
    }

    void takeCondition(const Line &line) {
        Words words = line.words;
        double patience = defaultPatience_s;
        if (words.size() > 2 && words[words.size() - 2] == "within") {
            const auto time = seconds(words.back());
            if (!time)
                return complain(line, words.size() - 1,
                                "SECONDS is seconds from 0 to 86400, not '" + words.back() + "'");
            patience = *time;
            words.resize(words.size() - 2);
        }
        if (words.size() < 2) return complain(line, 1, "missing: a condition");
        if (const auto problem = checkCondition(words, 1)) return complain(line, problem->word, problem->message);
        const bool when = words[0] == "when";
        if (when) time_ = 0;
        add({when ? Step::Kind::when : Step::Kind::expect, line.number, Words(words.begin() + 1, words.end()),
             patience});
    }

    void takeRepeat(const Line &line) {
        if (repeats_ > 0) return complain(line, 0, "a \"repeat\" within another one");
        const auto times = line.words.size() == 2 ? number(line.words[1], 1, 1000) : std::nullopt;
        if (!times) return complain(line, 1, "COUNT is a whole number from 1 to 1000");
        repeats_ = static_cast<size_t>(*times);
        repeatLine_ = line.number;
        round_.clear();
        time_ = 0;
    }

    void takeEnd(const Line &line) {
        if (repeats_ == 0) return complain(line, 0, "\"end\" without \"repeat\"");
        if (line.words.size() > 1) complain(line, 1, "nothing can follow here");
        for (size_t i = 0; i < repeats_; ++i) {
            scenario_.steps.push_back({Step::Kind::restart, repeatLine_, {}, 0});
            scenario_.steps.insert(scenario_.steps.end(), round_.begin(), round_.end());
        }
        scenario_.steps.push_back({Step::Kind::restart, line.number, {}, 0});
        repeats_ = 0;
        time_ = 0;
    }

    void add(Step step) { (repeats_ > 0 ? round_ : scenario_.steps).push_back(std::move(step)); }

    void complain(const Line &line, size_t word, const std::string &what) {
        complain(line.number, line.column(word), what);
    }
    void complain(size_t line, size_t column, const std::string &what) {
        problems_ += (problems_.empty() ? "" : "\n") + scenario_.name + ":" + std::to_string(line) + ":" +
                     std::to_string(column) + ": " + what;
    }

    Scenario scenario_;
    std::string problems_;
    std::vector<Step> round_;
    size_t repeats_ = 0;
    size_t repeatLine_ = 0;
    double time_ = 0;
};

// As it is written in the file.
std::string textOf(const Step &step) {
    std::array<char, 32> time{};
    (void)std::snprintf(time.data(), time.size(), "%.8g", step.seconds);
    const std::string words = join(step.words, 0, step.words.size());
    if (step.kind == Step::Kind::at) return std::string("at ") + time.data() + " " + words;
    return (step.kind == Step::Kind::when ? "when " : "expect ") + words + " within " + time.data();
}

long long microseconds(double seconds) { return static_cast<long long>(seconds * 1e6); }

}  // namespace

Scenario readScenario(const std::string &name, const std::string &text) { return Reader(name).read(text); }

Player::Player(Gateway &gateway, Scenario scenario, bool withProgram)
    : gateway_(gateway),
      scenario_(std::move(scenario)),
      withProgram_(withProgram),
      origin_us_(gateway.now_us()),
      lastOrder_us_(origin_us_) {
    gateway_.scenario = scenario_.name;
}

bool Player::next() {
    while (!ordered_ && failure_.empty() && !stopped_) {
        const Step *const step = present();
        if (step == nullptr) break;
        if (!withProgram_ && !step->words.empty() && step->words[0] == "program") {
            ++at_;
            continue;
        }
        if (step->kind == Step::Kind::at) {
            if (sinceOrigin_us() < microseconds(step->seconds)) return true;
            lastOrder_us_ = gateway_.now_us();
            ordered_ = true;
            gateway_.perform(step->words, [this](const Outcome &outcome) {
                ordered_ = false;
                if (!outcome.obeyed) fail(scenario_.steps[at_], outcome.text);
                ++at_;
            });
            continue;
        }
        if (step->kind == Step::Kind::restart) {
            origin_us_ = gateway_.now_us();
        } else if (wait(*step)) {
            return true;
        }
        ++at_;
    }
    if (ordered_) return true;
    gateway_.scenario.clear();
    over_ = true;
    return false;
}

bool Player::expectsMore() const {
    return failure_.empty() &&
           std::any_of(scenario_.steps.begin() + static_cast<std::ptrdiff_t>(std::min(at_, scenario_.steps.size())),
                       scenario_.steps.end(), [](const Step &step) {
                           return step.kind == Step::Kind::when || step.kind == Step::Kind::expect;
                       });
}

std::string Player::timeline() const {
    struct Shown {
        const Step *step = nullptr;
        long long times = 0;
        long long done = 0;
    };
    std::map<size_t, Shown> lines;
    for (size_t i = 0; i < scenario_.steps.size(); ++i) {
        const Step &step = scenario_.steps[i];
        if (step.kind == Step::Kind::restart) continue;
        Shown &line = lines[step.line];
        line.step = &step;
        ++line.times;
        if (i < at_) ++line.done;
    }
    Json steps = Json::array();
    for (const auto &[number, line] : lines) {
        Json one = Json::object();
        one.number("line", static_cast<long long>(number)).text("text", textOf(*line.step));
        steps.add(one.number("times", line.times).number("done", line.done).done());
    }
    const size_t line = failedLine_ != 0 ? failedLine_ : present() != nullptr ? present()->line : 0;
    Json object = Json::object();
    object.text("name", scenario_.name).text("question", scenario_.question);
    object.text("state", !failure_.empty() ? "failed" : !over_ ? "playing" : stopped_ ? "stopped" : "ended");
    object.number("line", static_cast<long long>(line)).text("failure", failure_).add("steps", steps.done());
    return object.done();
}

// True as long as there is something to wait for.
bool Player::wait(const Step &step) {
    if (!condition_) {
        // What came of the last order counts even when it came before this line was reached.
        condition_.emplace(step.words, gateway_.record(), lastOrder_us_);
        deadline_us_ = gateway_.now_us() + microseconds(step.seconds);
    }
    const bool held = condition_->holds(gateway_);
    if (!held && gateway_.now_us() < deadline_us_) return true;
    condition_.reset();
    if (!held) {
        fail(step, "not within " + std::to_string(static_cast<long long>(step.seconds * 1000)) + " ms");
    } else if (step.kind == Step::Kind::when) {
        origin_us_ = gateway_.now_us();
    }
    return false;
}

void Player::fail(const Step &step, const std::string &why) {
    if (!failure_.empty()) return;
    failedLine_ = step.line;
    failure_ =
        scenario_.name + ":" + std::to_string(step.line) + ": " + join(step.words, 0, step.words.size()) + ": " + why;
    gateway_.note({0, "scenario", failure_, {{"failure", failure_}}});
}

}  // namespace vxgateway
