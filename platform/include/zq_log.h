#ifndef ZQ_LOG_H
#define ZQ_LOG_H

/* The device's log library. Both calls may be made from any thread and, in a child, between fork and exec. */

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZQ_PRINTF_CHECKED(position, first) __attribute__((format(printf, position, first)))
#else
#define ZQ_PRINTF_CHECKED(position, first)
#endif

/* Writes one record.
 * module, level, flag: shown as they are; level 1 is information, 3 an error. reserved: 0.
 * file, line: where the call stands; file may be null. */
void ZQ_WriteLog(int module, int level, int flag, int reserved, const char *file, int line, const char *format, ...)
    ZQ_PRINTF_CHECKED(7, 8);

/* Writes one record in one of two languages: format is English, second_format the second language; both take the
 * same arguments. The library chooses. */
void ZQ_WriteLanguageLog(int module, int level, const char *format, const char *second_format, ...)
    ZQ_PRINTF_CHECKED(3, 5) ZQ_PRINTF_CHECKED(4, 5);

#ifdef __cplusplus
}
#endif

#endif
