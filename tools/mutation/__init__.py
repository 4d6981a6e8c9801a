"""The parts of tools/mutants."""
