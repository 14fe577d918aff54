// The XML namespace table that every gSOAP program defines once. The service speaks
// plain HTTP only, but the library's fault code refers to this table.
#include "zrftH.h"

#include "soap.nsmap"
