#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvexd {

// The text a pane's output leaves behind, read without a terminal engine: control and escape
// sequences are skipped, carriage return and backspace move within the line, line feed
// starts a new one, and long lines wrap at `cols`. Good for reading what a shell printed;
// cursor addressing and full-screen programs are beyond it.
struct PlainScreen {
    std::vector<std::string> lines; // the last `rows` lines, oldest first
    int cursorCol = 0;
    int cursorRow = 0;
};

PlainScreen plainScreen(std::string_view output, int cols, int rows);

} // namespace corvexd
