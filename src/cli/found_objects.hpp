// SPDX-License-Identifier: MIT
// The forms in which records of found objects are written.
#pragma once

#include <cstdint>

#include "cli/command.hpp"
#include "cli/output.hpp"
#include "corvalen/value.hpp"

namespace corvalen::cli {

enum class ObjectForm : std::uint8_t { table, plain, nullTerminated, json };

/// Returns the form that the options select. Throws UsageError for more than one.
[[nodiscard]] ObjectForm chooseObjectForm(const Arguments& arguments, bool isTerminal);

/// Formats one record as a line; empty for a record without a path. For a terminal, characters that
/// could act on it are escaped, except in the null-terminated form.
[[nodiscard]] std::string formatObject(const Dictionary& record, ObjectForm form, bool isTerminal,
                                       bool exactSizes);

/// The number and the order of the objects that are written.
struct ObjectSelection {
    enum class Key : std::uint8_t { none, path, size, modified };
    Key key = Key::none;
    bool isReversed = false;
    std::uint64_t limit = UINT64_MAX;
};
/// Returns the selection of --sort, --reverse and --limit. Throws UsageError for unknown keys.
[[nodiscard]] ObjectSelection chooseObjectSelection(const Arguments& arguments);

/// Writes records as they arrive, or keeps them all for sorting. A table begins with a heading.
/// Used by one thread at a time; borrows the output.
class ObjectWriter {
  public:
    /// Throws UsageError for options that exclude each other.
    ObjectWriter(Output& output, const Arguments& arguments)
        : _output(output),
          _form(chooseObjectForm(arguments, output.isTerminal())),
          _exactSizes(arguments.has("bytes")),
          _selection(chooseObjectSelection(arguments)) {}

    void write(const Array& records);
    /// Returns the kept records as sorted text, and drops them; empty without --sort.
    [[nodiscard]] std::string takeSorted();
    [[nodiscard]] std::uint64_t count() const noexcept { return _count; }
    [[nodiscard]] bool sorts() const noexcept {
        return _selection.key != ObjectSelection::Key::none;
    }
    /// Whether the limit was reached, so that further records are dropped.
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
