# The form of the Markdown pages; script/test --lint.
all
rule 'MD029', style: 'ordered'
exclude_rule 'MD013' # lines are as long as our sources' are; a table's row is as long as it must be
exclude_rule 'MD033' # comments, which walk.sh and the scripts that keep tables read
exclude_rule 'MD040' # fences of the README have two words, the second for walk.sh, which this rule does not read
