#include "vekmsg/tag.h"

int vekMsgTagCompare(unsigned int a, unsigned int b) {
    return static_cast<int>(a - b);
}
