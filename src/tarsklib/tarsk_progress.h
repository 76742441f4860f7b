/*
 * The engine's progress lines: formatted into a panel-line buffer and handed to the application's
 * callback, when there is one.
 */
#ifndef TARSK_TARSKLIB_TARSK_PROGRESS_H
#define TARSK_TARSKLIB_TARSK_PROGRESS_H

#include "tarsklib/tarsklib.h"
#include "platform/plat_unicode.h"

#define TARSK_PROGRESS_CHARS 260

/* Formats one line (wide format) and sends it; nothing when the engine has no callback. */
void tarsk_progress(const TarskEngine *engine, const WCHAR *format, FMT_ARGS_DECL);

#endif
