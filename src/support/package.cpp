// Package entry: the exported build record.
#include <cstring>

#include <oxel/package.h>

#include "build_record.h"

#define OXEL_STR2(x) #x
#define OXEL_STR(x) OXEL_STR2(x)

namespace {

// 13-character lead marker, then the record that the host reads.
const char kRecord[] =
    "@(#)OXELPKG@@"
    "|vendor|liboxel developers"
    "|product|oxel"
    "|version_major|" OXEL_STR(OXEL_VERSION_MAJOR)
    "|version_minor|" OXEL_STR(OXEL_VERSION_MINOR)
    "|version_patch|" OXEL_STR(OXEL_VERSION_PATCH)
    "|version_tag|release"
    "|comment|"
    "|compiler|" OXEL_BUILD_COMPILER
    "|target_os|" OXEL_BUILD_OS
    "|build_cfg|" OXEL_BUILD_CFG
    "|build_user|" OXEL_BUILD_USER
    "|build_ip|" OXEL_BUILD_HOST
    "|build_time|" OXEL_BUILD_TIME
    "|filename|" OXEL_BUILD_FILENAME
    "|path|" OXEL_BUILD_PATH
    "|size|" OXEL_STR(OXEL_RECORD_SIZE);

// Second marker of the build tooling (26 characters); half its length is the lead to skip.
const char kMarker[] = "@(#)OXEL-BUILD-RECORD-V1@@";
static_assert(sizeof(kMarker) - 1 == 26, "marker length");

}  // namespace

extern "C" const char* orvexpackage_oxel()
{
    return kRecord + std::strlen(kMarker) / 2;
}
