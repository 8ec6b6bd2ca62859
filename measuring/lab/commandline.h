#pragma once

#include <getopt.h>

/// Hands every option to \a read(int option, const char* value), which says whether it takes it. \a known
/// ends with a row of zeros. False at the first option that is unknown or refused; optind is where the other
/// arguments begin.
template <typename Read> bool readOptions(int argc, char** argv, const option* known, Read read)
{
    int found = 0;
    while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
        if (!read(found, optarg))
            return false;
    }
    return true;
}
