// SPDX-License-Identifier: MIT
// The shared library is made of the folder's static libraries; a target needs a source of its own.
