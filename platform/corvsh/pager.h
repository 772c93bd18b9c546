// Output a screen at a time, on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace corvsh {

class pager {
public:
    explicit pager(bool on);                     // off: everything is printed as it comes
    // False: the user wants no more of it.
    bool print(std::string_view text);
    void begin();                                // of a command
    void end_line();                             // its output ends, inside a line or not: the prompt begins one

private:
    bool pause();
    void measure();

    bool on_;
    bool stopped_ = false;
    std::size_t rows_ = 24, columns_ = 80;
    std::size_t lines_ = 0, column_ = 0;         // printed since the last pause, and on this line
};

} // namespace corvsh
