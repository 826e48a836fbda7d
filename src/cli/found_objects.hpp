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

/// Which of the found objects are written, and in which order.
struct ObjectSelection {
    enum class Key : std::uint8_t { none, path, size, modified };
    Key key = Key::none;
    bool isReversed = false;
    std::uint64_t limit = UINT64_MAX;
};
/// What the options ask for; a UsageError for a key that does not exist.
[[nodiscard]] ObjectSelection chooseObjectSelection(const Arguments& arguments);

/// Writes records as they arrive, or keeps them all when they are to be sorted; the table begins
/// with its heading.
class ObjectWriter {
  public:
    /// A UsageError when the options contradict each other.
    ObjectWriter(Output& output, const Arguments& arguments)
        : _output(output),
          _form(chooseObjectForm(arguments, output.isTerminal())),
          _exactSizes(arguments.has("bytes")),
          _selection(chooseObjectSelection(arguments)) {}

    void write(const Array& records);
    /// What was kept, as text, at the end; empty unless it was to be sorted.
    [[nodiscard]] std::string takeSorted();
    [[nodiscard]] std::uint64_t count() const noexcept { return _count; }
    [[nodiscard]] bool sorts() const noexcept {
        return _selection.key != ObjectSelection::Key::none;
    }
    /// Nothing that is found from now on is written.
    [[nodiscard]] bool isFull() const noexcept { return !sorts() && _count >= _selection.limit; }

  private:
    [[nodiscard]] std::string heading() const;

    Output& _output;
    ObjectForm _form;
    bool _exactSizes;
    ObjectSelection _selection;
    std::uint64_t _count = 0;
    Array _kept;
};

}  // namespace corvalen::cli
