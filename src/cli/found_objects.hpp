// SPDX-License-Identifier: MIT
// Writes the records of found objects in one of the forms.
#pragma once

#include <cstdint>

#include "cli/command.hpp"
#include "cli/output.hpp"
#include "corvalen/value.hpp"

namespace corvalen::cli {

enum class ObjectForm : std::uint8_t { table, plain, nullTerminated, json };

/// The form that the options ask for; a UsageError when they contradict each other.
[[nodiscard]] ObjectForm chooseObjectForm(const Arguments& arguments, bool isTerminal);

/// One record as a line of its form; empty for a record without a path. On a terminal, what could
/// act on it is escaped, except in the null-terminated form.
[[nodiscard]] std::string formatObject(const Dictionary& record, ObjectForm form, bool isTerminal,
                                       bool exactSizes);

/// Writes records as they arrive; the table begins with its heading.
class ObjectWriter {
  public:
    ObjectWriter(Output& output, ObjectForm form, bool exactSizes)
        : _output(output), _form(form), _exactSizes(exactSizes) {}

    void write(const Array& records);
    [[nodiscard]] std::uint64_t count() const noexcept { return _count; }

  private:
    Output& _output;
    ObjectForm _form;
    bool _exactSizes;
    std::uint64_t _count = 0;
};

}  // namespace corvalen::cli
