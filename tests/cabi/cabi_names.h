#ifndef TESTS_CABI_CABI_NAMES_H_
#define TESTS_CABI_CABI_NAMES_H_

/// Lists the senders through the library's C++ class; their number.
int CountSenders(const char* host);

/// Whether a table's defaults compare equal to the functions as the application names them.
bool DefaultHandlersAreRecognized();

/// In a shared library of the application that is loaded behind ours: has it a Logger of its own?
bool PluginHasItsOwnLogger();

#endif  // TESTS_CABI_CABI_NAMES_H_
