/* The common utilities: logging, properties and build identity, process identity, restart type, strings and files. */
#ifndef PELMAR_UTILS_CMN_H
#define PELMAR_UTILS_CMN_H

#include "pelmar_log.h"
#include "pelmar_process.h"
#include "pelmar_property.h"
#include "pelmar_ssr.h"
#include "pelmar_string.h"

#endif
