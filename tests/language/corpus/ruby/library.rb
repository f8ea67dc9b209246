require 'json'

module Library
  class Book
    attr_reader :title, :author

    def initialize(title, author)
      @title = title
      @author = author
    end

    def to_s
      "#{title} by #{author}"
    end
  end

  def self.load(path)
    JSON.parse(File.read(path)).map do |row|
      Book.new(row['title'], row['author'])
    end
  rescue Errno::ENOENT
    []
  end
end

Library.load('books.json').each { |book| puts book } unless ARGV.empty?
