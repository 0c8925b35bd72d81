/// @file
/// The whole interface of tq.
#pragma once

#include <tq/application.h>
#include <tq/diagnostics.h>
#include <tq/export.h>
#include <tq/messaging.h>
#include <tq/param_list.h>
#include <tq/types.h>
#include <tq/version.h>

#ifdef __cplusplus
#include <tq/application_holder.h>
#include <tq/counted_base.h>
#include <tq/memory_buffer.h>
#endif
