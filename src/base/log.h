// Log lines of the library: the framework's error_output under the calling module's name.
//
// A source file that logs defines kLogSource, the module name that its lines carry.
#pragma once

#include <qel_base.h>

#define QEL_ERROR(...) error_output(QEL_LOG_ERROR, kLogSource, __LINE__, __VA_ARGS__)
#define QEL_NOTICE(...) error_output(QEL_LOG_NOTICE, kLogSource, __LINE__, __VA_ARGS__)
#define QEL_DEBUG(...) error_output(QEL_LOG_DEBUG, kLogSource, __LINE__, __VA_ARGS__)
