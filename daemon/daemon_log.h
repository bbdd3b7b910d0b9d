// The daemon's own log lines, written beside the manager's under one tag.
#pragma once

#include <android/log.h>

#define LUMOKITD_LOG_TAG "LUMOKITD"

#define log_info(...) __android_log_print(ANDROID_LOG_INFO, LUMOKITD_LOG_TAG, __VA_ARGS__)
#define log_warn(...) __android_log_print(ANDROID_LOG_WARN, LUMOKITD_LOG_TAG, __VA_ARGS__)
#define log_error(...) __android_log_print(ANDROID_LOG_ERROR, LUMOKITD_LOG_TAG, __VA_ARGS__)
