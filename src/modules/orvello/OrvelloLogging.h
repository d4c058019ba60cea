#pragma once

// Log helpers shared by the module's source files. Each file keeps its own logger.
#include "vrax/dbglog.h"
#include "vrax/trstring.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

// The calling function as log lines name it.
#define ORVELLO_FUNCTION dbglog_scopedFunction(__PRETTY_FUNCTION__, "Orvello")

// "Enter <function>" at TRACE, optionally with ": " and the function's main argument.
#define ORVELLO_ENTER(logger) LOG4CPLUS_TRACE(logger, "Enter " << ORVELLO_FUNCTION)
#define ORVELLO_ENTER_ARG(logger, arg) LOG4CPLUS_TRACE(logger, "Enter " << ORVELLO_FUNCTION << ": " << arg)

// A translatable text in the calling function's translation context.
#define ORVELLO_TR(source, ...) TrString(trExtractContext(__PRETTY_FUNCTION__), source, ##__VA_ARGS__)
