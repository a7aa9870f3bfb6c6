<?php
// An ordinary blog index of the demo web root.
$posts = array(
    array('title' => 'First post', 'body' => 'Nothing to see here.'),
    array('title' => 'Second post', 'body' => 'Still nothing.'),
);
foreach ($posts as $post) {
    printf("<h2>%s</h2>\n<p>%s</p>\n", htmlspecialchars($post['title']), htmlspecialchars($post['body']));
}
