// Moments as the maintenance server writes them, "20YYMMDD-hhmmss" in local time, and as six
// fields: year - 2000, month 1-12, day, hour, minute, second.
#pragma once

#include <cstdint>

// Reads "20YYMMDD-hhmmss" at the start of text as sscanf "20%02d%02d%02d-%02d%02d%02d" reads
// it (each field at most two characters, so no field can overflow; text after the date is
// ignored). fields is zeroed first and receives the fields in order as far as they read.
// Returns how many read: 6 for a whole date, 0 for a null text. When end is not null and the
// whole date read, *end points just past it.
int ReadDate2000(const char* text, int32_t fields[6], const char** end = nullptr);

// Reads a span "20YYMMDD-hhmmss~20YYMMDD-hhmmss" into twelve fields, the first moment's six
// and then the last's, zeroed first and filled as far as they read (the second moment only
// after a whole first one and a "~"). Returns how many read, 12 for a whole span.
int ReadDateSpan2000(const char* text, int32_t fields[12]);

// The local time of six fields in seconds since 1970, held in 64 bits so that dates past 2038
// hold where time_t has 32. Fields out of their calendar range carry over as mktime carries
// them. A field beyond +-100000, or a time that cannot be computed, gives -1: a moment long
// past, so that whatever it limits counts as expired.
int64_t LocalTime2000(const int32_t fields[6]);
