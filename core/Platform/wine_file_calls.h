// Bridges around the intercepted file functions, for wine_bridges.cpp: device paths become what Wine opens,
// the information classes that it lacks become those that it has, and the move with a transaction becomes the
// one without.
#pragma once

namespace VornCore::platform::wine {

void* CreateFileOriginal(void* original);
void* OpenFileOriginal(void* original);
void* SetInformationFileOriginal(void* original);
void* MoveOriginal(void* original);
void* MoveDispatcher(void* dispatcher);

// Whether moves do not pass MoveFileWithProgressTransactedW, because KernelBase has no such function.
bool LacksTransactedMove();

}  // namespace VornCore::platform::wine
