// Basic integer types of Apple's platform headers, as documented for 64-bit macOS.
#pragma once

typedef unsigned char UInt8;
typedef unsigned short UInt16;
typedef unsigned int UInt32;
typedef signed int SInt32;
typedef SInt32 OSStatus;
typedef unsigned char Boolean;
typedef UInt16 UniChar;
// Declared although our sources do not use it: the project has a function of this name, and a
// clash with the real type must show up here.
typedef UInt32 FourCharCode;
