/* ostra_config.h comes first and alone: a C program needs nothing else to use the library. */
#include "ostra_config.h"

int c11_write_lock_and_unlock(const char* path);

int c11_write_lock_and_unlock(const char* path) {
    const int handle = Ini_Conf_Write_Lock_File(path);
    return handle < 0 ? handle : Ini_Conf_Unlock_File(handle);
}
