#ifndef VEKMSG_VEKMSG_H
#define VEKMSG_VEKMSG_H

/* The whole object interface. The C interface is in vekmsg/c_binding.h. */

#include "vekmsg/attribute.h"
#include "vekmsg/element.h"
#include "vekmsg/filter.h"
#include "vekmsg/log.h"
#include "vekmsg/message.h"
#include "vekmsg/tag.h"
#include "vekmsg/terminal.h"
#include "vekmsg/version.h"

#endif
