// Package entry: the build record that a host reads after loading the library.
#ifndef OXEL_PACKAGE_H
#define OXEL_PACKAGE_H

#include <oxel/export.h>

extern "C" OXEL_API const char* orvexpackage_oxel();

#endif
