@0xc5a1b6e0d3f24987;

interface Transfer {
  # An empty reply says that there was nothing to say.
  take @0 (data :Data) -> (reply :Data);
}
