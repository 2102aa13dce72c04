#include <zq_log.h>

void ZQ_WriteLog(int module, int level, int flag, int reserved, const char* file, int line, const char* format, ...) {}

void ZQ_WriteLanguageLog(int module, int level, const char* format, const char* second_format, ...) {}
