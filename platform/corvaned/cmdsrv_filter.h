// What becomes of a command's output behind a `|`: lines that are picked, counted, or turned into JSON.
#pragma once

#include "cmdsrv_parser.h"

#include <memory>

namespace corvaned {

class output_filter {
public:
    virtual ~output_filter() = default;
    virtual void text(std::string_view piece) = 0;
    virtual void end() = 0;                      // the command is done
};

using output_sink = std::function<void(std::string_view text)>;

// The filter that `text`, what stands behind the bar, asks for. Null: `error` says what is wrong, at a position in
// `text`. `schema_name` is that of the command, "" = it has none.
[[nodiscard]] std::unique_ptr<output_filter> make_filter(std::string_view text, const std::string &schema_name,
                                                         output_sink sink, line_error &error);
// Choices for the words behind the bar.
[[nodiscard]] completion_result complete_filter(std::string_view text, bool json);

} // namespace corvaned
