# The programs use the shared library through its public headers only.
