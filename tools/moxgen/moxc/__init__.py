"""moxgen: compiles model files (*.mox) into C++ headers and sources."""
