#pragma once
#include <iostream>

namespace tilegrid::cli {

/// The library writes its diagnostics to standard output. While this lives they go to standard error, and results have a stream
/// of their own.
class OutputLoan {
public:
    OutputLoan() : results(std::cout.rdbuf()), lent_(std::cout.rdbuf(std::cerr.rdbuf())) {}
    OutputLoan(OutputLoan const&) = delete;
    OutputLoan& operator=(OutputLoan const&) = delete;
    ~OutputLoan() { std::cout.rdbuf(lent_); }
    std::ostream results;

private:
    std::streambuf* lent_;
};

}  // namespace tilegrid::cli
