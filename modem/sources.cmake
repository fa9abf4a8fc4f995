# The library's sources, relative to modem/; Android.bp lists the same.
set(PELMAR_VS_SERVICE_SOURCES
  hal/hydra/modem_api/vs/vs_service_object.cpp
)
