// Asking the person at the terminal.
#ifndef ZEVOBW_TOOL_QUESTION_HPP
#define ZEVOBW_TOOL_QUESTION_HPP

#include <string>

namespace tool {

enum class Answer { kYes, kNo, kNobodyThere };

// Standard error shows the question, standard input gives the answer; nobody is there unless it is
// a terminal. Everything but "y" and "yes" is a no.
Answer Ask(const std::string &question);

} // namespace tool

#endif // ZEVOBW_TOOL_QUESTION_HPP
