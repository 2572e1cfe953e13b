// Lines of text between two ends of a connection.
#ifndef OFFICE_H
#define OFFICE_H

#include "asocket.h"

void TryOffice();

#endif
