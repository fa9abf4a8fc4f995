// The NAS service client of subscription 1.
#include "nas_client_functions.h"

PELMAR_NAS_CLIENT(nas_1, MODEM_API_CLIENT_NAS_1, 1)
