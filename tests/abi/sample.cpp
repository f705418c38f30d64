// SPDX-License-Identifier: MIT
#include <vxutils/sample.h>

int SampleLoop::start() { return state_ = 1; }
int SampleLoop::stop() { return state_ = 0; }

int sample_read(const sample_record *record) { return record->first; }
#ifndef CHANGE_FUNCTION_REMOVED
int sample_write(sample_record *record, int value) { return record->second = value; }
#endif
#ifdef CHANGE_FUNCTION_ADDED
int sample_clear(sample_record *record) { return record->second = 0; }
#endif
