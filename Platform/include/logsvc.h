// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef LOGSVC_H
#define LOGSVC_H

/**
 * The platform log: one line of text, with a priority and the tag of the component it comes from.
 *
 * On the Linux platform a line goes to the systemd journal when the journal's socket is there, else
 * to standard error as one line of local time, priority letter, tag and text, at most 4096 bytes:
 *
 *     03-14 15:09:26.535 E/TALLYRA: text
 *
 * No caller waits for a log that is not read. A line is dropped where the pipe, terminal, socket or
 * journal is full, and before the next line that gets out one says how many were dropped:
 *
 *     03-14 15:09:26.535 E/LOGSVC: 12 lines dropped
 *
 * The host's file description is not changed, and a reader that has gone raises no signal.
 *
 * Two environment variables, read once at the first call of the process, direct it:
 *
 *     LOGSVC_LEVEL   debug, info, error or off: the lowest priority that is written (default info)
 *     LOGSVC_OUTPUT  journal or stderr: where lines go, instead of what the socket decides
 *
 * A process that has standard error closed at its first line logs nothing there, then or later: the
 * number may be another file's by then.
 *
 * Any other value is reported once on standard error and the default is taken.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** The log a line belongs to. */
enum logsvc_buffer {
    LOGSVC_MAIN = 0 /**< The main log; the only one. */
};

/** How much a line matters; the larger, the more. */
enum logsvc_priority {
    LOGSVC_DEBUG = 3, /**< For who follows the program closely; letter D. */
    LOGSVC_INFO = 4,  /**< Worth knowing in normal operation; letter I. */
    LOGSVC_ERROR = 6  /**< Something did not work; letter E. */
};

#if defined(__GNUC__)
#define LOGSVC_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define LOGSVC_PRINTF(text, first)
#endif

/**
 * Writes one line to the log.
 *
 * A line whose priority is below the level in force costs one comparison: its arguments are not
 * formatted, and the call succeeds. Line breaks inside the text stay as they are; a last one is
 * not needed.
 *
 * Threads: any, at the same time; lines of different threads never mix. Not to be called from a
 * signal handler. errno is the same after the call as before it. The call is no cancellation point.
 *
 * @param buffer    LOGSVC_MAIN.
 * @param priority  LOGSVC_DEBUG, LOGSVC_INFO or LOGSVC_ERROR.
 * @param tag       The component's name, zero-terminated; read during the call only. NULL is an
 *                  empty tag.
 * @param format    As for printf(3), with its arguments behind it; read during the call only.
 * @return 0 when the line was written or is below the level; -EINVAL for a buffer or a priority
 *         that does not exist, a NULL format, or a format that printf refuses; -EAGAIN for a line
 *         that was dropped since nobody reads; else the negative errno value of the failed write.
 */
int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...)
    LOGSVC_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif  // LOGSVC_H
