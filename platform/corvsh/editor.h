// Lines from a terminal: editing and history by libedit, help and completion from the command server.
#pragma once

#include "connection.h"

#include <histedit.h>
#include <optional>

namespace corvsh {

class editor {
public:
    editor(connection &server, std::string prompt);
    ~editor();
    editor(const editor &) = delete;
    editor &operator=(const editor &) = delete;

    // Nothing at the end of the input. A line that was given up with Ctrl-C is empty.
    std::optional<std::string> line();
    // Ctrl-C was typed since it was asked last; while a command runs it ends the wait for its output.
    static bool take_interrupt();
    void set_prompt(std::string prompt) { prompt_ = std::move(prompt); }
    [[nodiscard]] std::size_t prompt_columns() const { return prompt_.size(); }

private:
    static editor &of(EditLine *el);
    static const char *give_prompt(EditLine *el);
    static unsigned char on_tab(EditLine *el, int key);
    static unsigned char on_question(EditLine *el, int key);
    [[nodiscard]] std::string before_cursor() const;
    unsigned char complete();
    unsigned char help();
    void show(const std::string &text) const;

    connection &server_;
    std::string prompt_, history_file_;
    EditLine *el_ = nullptr;
    History *history_ = nullptr;
};

} // namespace corvsh
