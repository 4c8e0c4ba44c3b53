"""One module for each proof: NAME, PROVES (what holds when it finds nothing) and run(builds), which returns a Result."""
