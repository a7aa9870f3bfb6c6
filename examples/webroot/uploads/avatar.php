<?php
// SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: the script
// stops on the next line, and the marker below is only a comment.
exit;
/* marker of a one-line PHP shell: eval($_POST['cmd']); */
