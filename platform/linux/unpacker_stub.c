/* Debian's libbacktrace asks for an archive library whose ARM build cannot be installed beside the
 * workstation's own. Nothing here unpacks anything: the names are enough to load it. */
#include <stdlib.h>

#define NEVER_CALLED(name) \
    void name(void);       \
    void name(void) { abort(); }

NEVER_CALLED(CrcGenerateTable)
NEVER_CALLED(Crc64GenerateTable)
NEVER_CALLED(XzUnpacker_Code)
NEVER_CALLED(XzUnpacker_Construct)
NEVER_CALLED(XzUnpacker_Free)
NEVER_CALLED(XzUnpacker_IsStreamWasFinished)
