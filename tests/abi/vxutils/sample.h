/* SPDX-License-Identifier: MIT */
/* A library of one record, one class and two functions, and what a careless hand does to it (one CHANGE_ at a time). */
#ifndef VXUTILS_SAMPLE_H
#define VXUTILS_SAMPLE_H

struct sample_record {
#ifdef CHANGE_FIELD_MOVED
    char flag;
#endif
    int first;
    int second;
};

class SampleLoop {
public:
#ifdef CHANGE_SLOTS_SWAPPED
    virtual int stop();
    virtual int start();
#else
    virtual int start();
    virtual int stop();
#endif
#ifdef CHANGE_OBJECT_GROWN
    long count_;
#endif
    int state_;
};

extern "C" int sample_read(const sample_record *record);
#ifndef CHANGE_FUNCTION_REMOVED
extern "C" int sample_write(sample_record *record, int value);
#endif
#ifdef CHANGE_FUNCTION_ADDED
extern "C" int sample_clear(sample_record *record);
#endif

#endif
