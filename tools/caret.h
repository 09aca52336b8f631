// Where a parse failed: the formula's line around the offset and a caret under it.
#ifndef OXEL_TOOLS_CARET_H
#define OXEL_TOOLS_CARET_H

#include <algorithm>
#include <cctype>
#include <string>

// Two lines: lead + before + line + after, then caret and "^" under the offset. lead is two
// blanks (and "line N: " in a text of several lines); long lines show a window around the
// offset, with "..." before or after where they are cut.
struct OxelCaret {
    std::string lead, before, line, after, caret;
};

// False when offset lies outside the text: nothing to show.
inline bool oxelCaretLines(const std::string& text, long offset, OxelCaret& out)
{
    if (offset < 0 || static_cast<size_t>(offset) > text.size())
        return false;
    size_t at = static_cast<size_t>(offset);
    if (at == text.size())  // the end: just behind the last visible character
        while (at > 0 && std::isspace(static_cast<unsigned char>(text[at - 1])))
            --at;
    size_t begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;  // npos + 1 is 0
    size_t end = text.find('\n', at);
    if (end == std::string::npos)
        end = text.size();
    std::string lead = "  ";
    if (text.find('\n') < text.size() - 1 || begin > 0)
        lead += "line " + std::to_string(std::count(text.begin(), text.begin() + begin, '\n') + 1) + ": ";
    const size_t kWidth = 72;
    size_t from = begin, to = end;
    std::string before, after;
    if (end - begin > kWidth) {
        from = std::max(begin, at > kWidth / 2 ? at - kWidth / 2 : 0);
        to = std::min(end, from + kWidth);
        before = from > begin ? "..." : "";
        after = to < end ? "..." : "";
    }
    std::string caret(lead.size() + before.size(), ' ');
    for (size_t i = from; i < at; ++i)
        caret += text[i] == '\t' ? '\t' : ' ';
    out = {lead, before, text.substr(from, to - from), after, caret};
    return true;
}

#endif
