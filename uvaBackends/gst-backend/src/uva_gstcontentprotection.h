#ifndef UVA_GSTCONTENTPROTECTION_H
#define UVA_GSTCONTENTPROTECTION_H

/// Creates the debug category "gstuvacontentprotectionhandler" unless it exists. True.
bool InitializeLogging();

#endif
