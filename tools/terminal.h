// A line of input with editing, history, completion and help, on a terminal.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ipaclctl {

class LineEditor {
  public:
    struct Habits {
        std::function<std::string()> prompt;
        // What is shown for "?" behind a text.
        std::function<std::string(const std::string &text)> help;
        // The words that could stand where a text ends, whole.
        std::function<std::vector<std::string>(const std::string &text)> complete;
    };

    explicit LineEditor(Habits habits);
    ~LineEditor();
    LineEditor(const LineEditor &) = delete;
    LineEditor &operator=(const LineEditor &) = delete;

    // The next line, without its end; none when the terminal or the operator has ended it.
    std::optional<std::string> read();
    // Puts a text on the next line, as if it had been typed.
    void put_back(const std::string &text);
    // The lines of this session, the oldest first.
    std::vector<std::string> lines() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace ipaclctl
