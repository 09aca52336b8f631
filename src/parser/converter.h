// Parser-internal globals and name services shared by the lexer, the grammar and the entry.
#ifndef OXEL_PARSER_CONVERTER_H
#define OXEL_PARSER_CONVERTER_H

#include <oxel/nodes.h>
#include <oxel/parser.h>

#endif
