<?php
// SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: the script
// stops at once; the text below only looks like a packed payload.
exit;
$note = 'gzinflate(base64_decode(' . "'c2FtcGxl'" . '))';
