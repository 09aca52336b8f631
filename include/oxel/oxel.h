// Umbrella header: everything a host needs from liboxel.
#ifndef OXEL_OXEL_H
#define OXEL_OXEL_H

#include <oxel/export.h>
#include <oxel/support.h>
#include <oxel/core.h>
#include <oxel/nodes.h>
#include <oxel/parser.h>
#include <oxel/expression.h>
#include <oxel/package.h>
#include <oxel/messages.h>
#include <oxel/formula.h>
#include <oxel/printing.h>

#endif
