#ifndef VEKMSG_TOOLS_ELEMENT_TEXT_H
#define VEKMSG_TOOLS_ELEMENT_TEXT_H

#include <string>
#include <vector>

#include "vekmsg/vekmsg.h"

/// Elements as people type them.
///
///     5:u=7          tag 5, a number; decimal, or hexadecimal behind 0x
///     6:s=text       a text, up to a blank or the end of the braces around it
///     6:s="a text"   one with blanks, in quotes, where \" and \\ and \n stand for characters
///     7:b=00c0ff     bytes
///     8:c{1:u=1 2:s=text}   elements with blanks between them
///
/// Throws a Failure_ of bad data that says at which character it stopped.
std::vector<SP_VekmsgElement_> elementsOfText(const std::string& text);

/// One payload: the element itself when there is one, else all of them in an element with the tag `root`.
SP_VekmsgElement_ payloadOf(const std::vector<SP_VekmsgElement_>& elements, VekmsgTag_ root);

#endif
