// Present because GoogleTest's headers include it when __APPLE__ is defined; they use nothing
// from it that our check needs.
#pragma once
