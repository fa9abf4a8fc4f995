// The NAS service client of subscription 0.
#include "nas_client_functions.h"

PELMAR_NAS_CLIENT(nas_0, MODEM_API_CLIENT_NAS_0, 0)
