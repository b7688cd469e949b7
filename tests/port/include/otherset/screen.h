#pragma once
/**
 * \file   screen.h
 * \brief  The picture plane: the sinks show pictures, the host interface captures them. Thread-safe.
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * \brief Puts a picture on the screen, over what anybody has shown.
 * \param Plane  who shows it
 * \param Pixels red, green, blue, 255, rows without padding; copied
 */
void OtherSet_Show(const void *Plane, const uint8_t *Pixels, unsigned Width, unsigned Height);

/** \brief Makes the screen black if what it shows is the plane's. */
void OtherSet_Clear(const void *Plane);

#ifdef __cplusplus
}
#endif
