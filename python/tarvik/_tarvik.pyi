from tarvik import *  # noqa: F401,F403
