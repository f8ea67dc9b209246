terraform {
  required_providers {
    aws = {
      source  = "hashicorp/aws"
      version = "~> 5.0"
    }
  }
}

variable "region" {
  type    = string
  default = "eu-west-1"
}

resource "aws_s3_bucket" "logs" {
  bucket = "example-logs-${var.region}"
  tags = {
    Purpose = "logs"
  }
}

output "bucket" {
  value = aws_s3_bucket.logs.id
}
