// Asking the person at the terminal.
#ifndef ZEVOBW_TOOL_QUESTION_HPP
#define ZEVOBW_TOOL_QUESTION_HPP

#include <string>

namespace tool {

enum class Answer { kYes, kNo, kNobodyThere };

// Prints the question to standard error and reads the answer from standard input. If that is no
// terminal, nobody is there. Every answer but "y" and "yes" means no.
Answer Ask(const std::string &question);

} // namespace tool

#endif // ZEVOBW_TOOL_QUESTION_HPP
