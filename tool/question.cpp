// Asking the person at the terminal.
#include "question.hpp"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "output.hpp"

namespace tool {

Answer Ask(const std::string &question)
{
    if (::isatty(STDIN_FILENO) != 1) return Answer::kNobodyThere;
    static_cast<void>(std::fflush(stdout));
    std::fputs((Printable(question) + " [y/N] ").c_str(), stderr);
    std::string line;
    std::getline(std::cin, line);
    return line == "y" || line == "Y" || line == "yes" ? Answer::kYes : Answer::kNo;
}

} // namespace tool
