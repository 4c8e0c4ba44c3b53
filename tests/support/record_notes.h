#ifndef VEKMSG_TESTS_RECORD_NOTES_H
#define VEKMSG_TESTS_RECORD_NOTES_H

#include "vekmsg/log.h"

struct Record_;

// What the proof of the records reads. When VEKMSG_RECORDS_FOLDER names a folder, each process of the tests
// leaves one file there, with a line for each different note; fields are divided by tabs, and control bytes
// in them are written as \xNN:
//
//     seen      SEVERITY SOURCE SIGNATURE LINE ORDINAL TEXT     a capture took this record
//     asserted  SEVERITY SOURCE SIGNATURE LINE ORDINAL TEXT     a test stated this record, and it was so
//     call      ENTRY WAY                                       a test stated all records of a public call
//
// The signature is the comparable one. Sites of one line and function are told apart by their ordinal, from
// 0. Noting a Record_ asks for no memory from `operator new`: tests count what that is asked for.

void noteSeen(const Record_& record);
void noteSeen(int severity, const LogSite* p_site, const char* p_text);  // for sinks that keep no records
void noteAsserted(const Record_& record);
void noteCall(const char* p_entry, const char* p_way);

#endif
