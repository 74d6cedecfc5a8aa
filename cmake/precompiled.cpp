// Compiled for its precompiled header alone.
