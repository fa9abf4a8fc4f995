/* A program outside the tree, compiled as C and, as a copy, as C++. It writes an item and reads it back. */
#include <string.h>

#include "modem_api.h"
#include "modem_hydra.h"
#include "pelmar_utils_cmn.h"

int main(void) {
  static const uint8_t written[] = {1, 2, 3};
  uint8_t read[16] = {0};
  uint32_t length = sizeof(read);
  int32_t client = -1;
  if (modem_api_init() != 0 || modem_api_init_client(MODEM_API_CLIENT_VS, NULL, NULL, &client) != 0) return 1;
  if (modem_api_write_nv(client, 7, 0, 0, written, sizeof(written)) != 0) return 2;
  if (modem_api_read_nv(client, 7, 0, 0, read, &length) != 0) return 3;
  modem_api_free_client(client);
  modem_api_release();
  return length == sizeof(written) && memcmp(read, written, sizeof(written)) == 0 ? 0 : 4;
}
