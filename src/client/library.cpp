// SPDX-License-Identifier: MIT
// Empty: the shared library consists of static libraries, but its target needs a source.
